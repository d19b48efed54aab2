// C boundary of the case folding and comparison.
#include "text/casefold.h"
#include "vrk_text.h"

extern "C" {

char* utf8foldstring(char* s) noexcept { return vrk::text::FoldInPlace(s); }

char* utf8foldstrict(const char* s, int flags) noexcept { return vrk::text::FoldCopy(s, flags); }

int utf8icmp(const char* a, const char* b, int flags) noexcept { return vrk::text::CompareFolded(a, b, flags); }

}  // extern "C"
