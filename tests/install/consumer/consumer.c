/* A C program built against an installed libVrkutil, through pkg-config or
 * through find_package: it calls into the library and its siblings. */
#include <stdio.h>
#include <string.h>

#include "vrk_checksum.h"
#include "vrk_text.h"

int main(void) {
  const unsigned crc = CRC32_Mem("123456789", 0xFFFFFFFFu, 9) ^ 0xFFFFFFFFu;
  if (crc != 0xCBF43926u || charconv_GetCP("utf-8") != 65001 || strcmp(charconv_GetCPName(1252), "x-ansi") != 0) {
    fputs("consumer: unexpected answers from the installed library\n", stderr);
    return 1;
  }
  puts("consumer: ok");
  return 0;
}
