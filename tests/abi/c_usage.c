/* Every public header compiles as plain C (their layout asserts included),
 * and a C program links against the library and calls it. */
#include "all_headers.h"

#include <stdio.h>
#include <string.h>

int main(void) {
  if (charconv_GetCP("utf-8") != 65001 || strcmp(charconv_GetCPName(65001), "utf-8") != 0) {
    fputs("c_usage: unexpected code-page answers\n", stderr);
    return 1;
  }
  puts("1 passed, 0 failed");
  return 0;
}
