// SPDX-License-Identifier: Apache-2.0
// The library's log lines as the tool writes them: each line starts with
// the index and time of the sample being processed ("[#120 t=2.400] "), or
// "[setup] " before the first sample, so that a line can be matched with the
// recording and the output table (row N is sample #N).
//
// The library calls a plain C callback without a context, so the
// destination and the current sample are kept here, for the whole process
// (the library's state is process-wide as well).
#pragma once

#include <cstddef>
#include <cstdio>

namespace quelta::replay {

// Where prefixedLog writes; null drops the lines. Resets to "[setup]".
void setLogStream(FILE* stream);

// The sample now handed to the library.
void setLogSample(size_t index, double t);

// A LogCallback: formats the line and writes it with the prefix at the
// start of every line (a line may arrive in several calls).
int prefixedLog(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace quelta::replay
