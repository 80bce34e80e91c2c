// SPDX-License-Identifier: Apache-2.0
// A shared object that breaks the layer's export rule on purpose: the check
// of libquelta.so must refuse it (tests/shared_object.cmake).
extern "C" __attribute__((visibility("default"))) int quelta_probe(void) { return 1; }
extern "C" __attribute__((visibility("default"))) int probe_outside_the_prefix(void) { return 2; }
