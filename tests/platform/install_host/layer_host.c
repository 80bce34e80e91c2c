// SPDX-License-Identifier: Apache-2.0
/* A C host of the installed libquelta.so: the layer's headers compile as C
 * and the library loaded is the one the headers describe. */
#include <quelta/quelta.h>
#include <stdio.h>
#include <string.h>

int main(void) {
  const char* loaded = quelta_version();
  if (loaded == NULL || strcmp(loaded, QUELTA_VERSION_STRING) != 0) {
    fprintf(stderr, "libquelta %s loaded, headers of %s\n", loaded ? loaded : "(null)",
            QUELTA_VERSION_STRING);
    return 1;
  }
  printf("host linked against the installed libquelta %s runs\n", loaded);
  return 0;
}
