// SPDX-License-Identifier: Apache-2.0
/* A C host built against the installed QueltaAlgo: the header compiles as C,
 * functions and exported data objects resolve to the shared object. */
#include <QueltaAlgo.h>
#include <stdio.h>

static int host_log(const char *fmt, ...) {
  (void)fmt;
  return 0;
}

int main(void) {
  const float v[2] = {3.0f, 4.0f};
  RegisterLogCallback(host_log);
  if (log_func != host_log) {
    fprintf(stderr, "log_func does not hold the registered callback\n");
    return 1;
  }
  if (norm2(v, 2) != 5.0f) {
    fprintf(stderr, "norm2(3, 4) = %a\n", (double)norm2(v, 2));
    return 1;
  }
  RegisterLogCallback(NULL);
  if (log_func != NULL) {
    fprintf(stderr, "log_func not cleared\n");
    return 1;
  }
  puts("host linked against the installed QueltaAlgo runs");
  return 0;
}
