// SPDX-License-Identifier: Apache-2.0
/* Compiled with contraction forced on, this must produce a fused
 * multiply-add: it proves the disassembly check can see one on this target. */
float quelta_fma_probe(float a, float b, float c) { return a * b + c; }
double quelta_fma_probe_double(double a, double b, double c) { return a * b - c; }
