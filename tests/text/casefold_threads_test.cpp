// The first folding call of a process builds the lead-byte index; threads
// making that first call at once must all see a complete index. Run in a
// fresh child so the call really is the process's first.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "support/child_process.h"
#include "vrk_text.h"

namespace {

TEST(FoldIndex, ConcurrentFirstCalls) {
  for (int round = 0; round < 20; ++round) {
    const vrk::test::ChildResult child = vrk::test::RunInChild([] {
      constexpr int kThreads = 8;
      std::atomic<int> waiting{kThreads};
      std::atomic<int> failures{0};
      std::vector<std::thread> threads;
      for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
          waiting.fetch_sub(1);
          while (waiting.load() > 0) {
          }
          // U+0391 GREEK CAPITAL LETTER ALPHA, U+10400 DESERET CAPITAL LETTER
          // LONG I, U+212A KELVIN SIGN: records behind several lead bytes.
          const char* upper = "\xCE\x91\xF0\x90\x90\x80\xE2\x84\xAA" "Z";
          const char* lower = "\xCE\xB1\xF0\x90\x90\xA8k" "z";
          if (t % 2 == 0) {
            if (utf8icmp(upper, lower, 0) != 0) failures.fetch_add(1);
          } else {
            char* folded = utf8foldstrict(upper, 0);
            if (folded == nullptr || std::string(folded) != lower) failures.fetch_add(1);
            utf8freeresult(folded);
          }
        });
      }
      for (std::thread& thread : threads) thread.join();
      return failures.load();
    });
    ASSERT_TRUE(child.exited) << child.output;
    ASSERT_EQ(child.status, 0) << "round " << round << ": " << child.output;
  }
}

}  // namespace
