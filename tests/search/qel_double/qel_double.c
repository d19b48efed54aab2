// A stand-in of the analysis module "qel.dll", built once per behaviour
// into folders of its own. Every entry point appends a line to the file
// named by QEL_DOUBLE_LOG, so that calls survive the module being closed.
//   QEL_DOUBLE_INFO          information word written by QELGetInfoString
//                            (default 3; "none" writes nothing)
//   QEL_DOUBLE_BUSCA_RESULT  what QELBuscaTbl returns (default 0)
// Build options: QEL_DOUBLE_OMIT_FREEBUSCA leaves QELFreeBuscaTbl out;
// QEL_DOUBLE_INIT_RESULT is what QELInitBoard returns (default 0).
// QELBuscaTbl gives a real answer: it searches the registry it was last
// handed with the same rules as the library (bucket counts in place of the
// bitmap), reporting pattern numbers with the position in the upper bits.
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "search/qel_binding_module.h"

#ifndef QEL_DOUBLE_INIT_RESULT
#define QEL_DOUBLE_INIT_RESULT 0
#endif

static SEARCH_BuscaTblSlot g_slots[QEL_PATTERN_SLOTS];

static void Log(const char *format, ...) {
  FILE *f = getenv("QEL_DOUBLE_LOG") ? fopen(getenv("QEL_DOUBLE_LOG"), "a") : NULL;
  if (!f) return;
  va_list args;
  va_start(args, format);
  vfprintf(f, format, args);
  va_end(args);
  fputc('\n', f);
  fclose(f);
}

int QELInitBoard(void) {
  Log("QELInitBoard");
  return QEL_DOUBLE_INIT_RESULT;
}
void QELReleaseBoard(void) { Log("QELReleaseBoard"); }
void QELLoadCRCTBL(void) { Log("QELLoadCRCTBL"); }
void QELAnalizeFile(void) { Log("QELAnalizeFile"); }
void QELFreeAnalizeFile(void) { Log("QELFreeAnalizeFile"); }

void QELLoadPatterns(SEARCH_BuscaTblSlot *slots, int count) {
  Log("QELLoadPatterns %d", count);
  for (int i = 0; i < count && i < QEL_PATTERN_SLOTS; ++i) {
    const SEARCH_BuscaTblSlot *s = &slots[i];
    if (s->table || s->count || s->index || s->patterns) {
      Log("slot %d: table %u count %u index %p patterns %p", i, s->table, s->count, s->index,
          (const void *)s->patterns);
    }
  }
  // A snapshot: a registration that is not followed by a new hand-over
  // leaves this module searching the old tables.
  memcpy(g_slots, slots, sizeof g_slots);
}

static int Tail(const unsigned char *d, const unsigned char *prog, long remaining) {
  for (;; ++d, ++prog, --remaining) {
    if (*prog == 0xDD) {
      for (long s = (remaining < prog[1] ? remaining : prog[1]) - 1; s >= 0; --s)
        if (d[s] == prog[2] && Tail(d + s + 1, prog + 3, remaining - s - 1)) return 1;
      return 0;
    }
    if (*prog == 0xDF) return 1;
    if (remaining == 0 || *d != *prog) return 0;
  }
}

int QELBuscaTbl(const unsigned char *data, int length, int positions, unsigned int table, uint32_t **hits,
                int *hitcount) {
  Log("QELBuscaTbl length %d positions %d table %u", length, positions, table);
  const SEARCH_BuscaTblSlot *s = &g_slots[table];
  int n = 0, capacity = 0;
  uint32_t *out = NULL;
  for (int p = 0; s->index && p < positions; ++p) {
    for (int rule = 0; rule < 2; ++rule) {
      const unsigned key = data[p] | (rule == 0 ? data[p + 1] : 0xDDu) << 8;
      uint16_t entry[2];  // count, first
      memcpy(entry, (const unsigned char *)s->index + 4 * key, sizeof entry);
      for (unsigned i = entry[0]; i-- > 0;) {
        const unsigned char *pattern = s->patterns[entry[1] + i];
        const long head = pattern[0];
        if (rule == 0 ? p + 2 + head <= length && memcmp(data + p + 2, pattern + 2, (size_t)head) == 0 &&
                            Tail(data + p + 2 + head, pattern + 2 + head, length - p - 2 - head)
                      : Tail(data + p + 1, pattern + 1, length - p - 1)) {
          if (n == capacity) out = realloc(out, (size_t)(capacity = capacity ? 2 * capacity : 16) * sizeof *out);
          out[n++] = (entry[1] + i) | (uint32_t)(p + 1) << 16;
        }
      }
    }
  }
  *hits = out;
  *hitcount = n;
  return getenv("QEL_DOUBLE_BUSCA_RESULT") ? atoi(getenv("QEL_DOUBLE_BUSCA_RESULT")) : 0;
}

#ifndef QEL_DOUBLE_OMIT_FREEBUSCA
void QELFreeBuscaTbl(uint32_t *hits) {
  Log("QELFreeBuscaTbl");
  free(hits);
}
#endif

void QELGetInfoString(int selector, void *buffer, int size) {
  Log("QELGetInfoString %d %d", selector, size);
  const char *info = getenv("QEL_DOUBLE_INFO");
  if (info && strcmp(info, "none") == 0) return;
  const uint32_t word = info ? (uint32_t)strtoul(info, NULL, 0) : 3u;
  if (size >= 4) memcpy(buffer, &word, 4);
}
