// C boundary of the case folding and comparison.
#include "text/casefold.h"
#include "vrk_text.h"

extern "C" {

char* utf8foldstring(char* s) noexcept { return vrk::text::FoldInPlace(s); }

char* utf8foldstrict(const char* s, int flags) noexcept { return vrk::text::FoldCopy(s, flags); }

int utf8icmp(const char* a, const char* b, int flags) noexcept {
  using vrk::text::FoldOrder;
  switch (const FoldOrder order = vrk::text::CompareFolded(a, b, flags)) {
    case FoldOrder::kNullArgument: return UTF8_ERR_NULLARG;
    case FoldOrder::kMalformed: return UTF8_ERR_INVALID;
    default: return int(order);
  }
}

}  // extern "C"
