// The allocator stand-in: the documented operations and the test controls
// that every other test relies on (fault injection, counts, call log).
#include <gtest/gtest.h>

#include <cstring>

#include "vrk_standin_ctl.h"
#include "vrkalloc.h"

namespace {

TEST(AllocStandin, BlocksAndCounts) {
  const uint32_t live = vrkalloc_live(VRKALLOC_FAMILY_P);
  void* a = Pmalloc(10, 0);
  auto* b = static_cast<uint8_t*>(Pcalloc(7, 3, 0));
  ASSERT_NE(a, nullptr);
  ASSERT_NE(b, nullptr);
  for (int i = 0; i < 21; ++i) EXPECT_EQ(b[i], 0) << i;
  EXPECT_EQ(vrkalloc_live(VRKALLOC_FAMILY_P), live + 2);
  std::memcpy(a, "0123456789", 10);
  a = Prealloc(a, 100000);
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(std::memcmp(a, "0123456789", 10), 0);
  Pfree(a);
  void* c = b;
  PSafeFree(&c);
  EXPECT_EQ(c, nullptr);
  EXPECT_EQ(vrkalloc_live(VRKALLOC_FAMILY_P), live);

  void* fresh = Prealloc(nullptr, 5);  // a null block is allocated afresh
  ASSERT_NE(fresh, nullptr);
  Pfree(fresh);
  Pfree(nullptr);
}

TEST(AllocStandin, RefusedReallocKeepsTheOldBlock) {
  auto* p = static_cast<char*>(Pmalloc(4, 0));
  std::memcpy(p, "abc", 4);
  vrkalloc_fail_all(1);
  EXPECT_EQ(Prealloc(p, 400), nullptr);
  vrkalloc_fail_all(0);
  EXPECT_STREQ(p, "abc");
  Pfree(p);
}

TEST(AllocStandin, FaultInjection) {
  struct Case {
    const char* what;
    void (*arm)();
    bool refused[4];  // the next four requests
  };
  const Case cases[] = {
      {"nth 2", [] { vrkalloc_fail_nth(2); }, {false, true, false, false}},
      {"from 3", [] { vrkalloc_fail_from(3); }, {false, false, true, true}},
      {"size 16", [] { vrkalloc_fail_size(16, 1); }, {false, true, false, true}},
      {"all", [] { vrkalloc_fail_all(1); }, {true, true, true, true}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    vrkalloc_reset();
    c.arm();
    // Sizes 8, 16, 24 (as 3 x 8), 16 (as Prealloc of null).
    void* blocks[4] = {Pmalloc(8, 0), Pmalloc(16, 0), Pcalloc(3, 8, 0), Prealloc(nullptr, 16)};
    for (int i = 0; i < 4; ++i) {
      EXPECT_EQ(blocks[i] == nullptr, c.refused[i]) << "request " << i;
      Pfree(blocks[i]);
    }
  }
  vrkalloc_reset();
  EXPECT_EQ(Pcalloc(0x10000, 0x10000, 0), nullptr);  // count * size beyond 32 bits
}

TEST(AllocStandin, CallLog) {
  vrkalloc_log_enable(1);
  void* p = Pcalloc(408, 8, 0);
  void* q = Prealloc(p, 9);
  Pfree(q);
  vrkalloc_fail_all(1);
  EXPECT_EQ(Pmalloc(52, 0), nullptr);
  ASSERT_EQ(vrkalloc_log_size(), 4u);
  const VrkAllocCall* c0 = vrkalloc_log_at(0);
  EXPECT_EQ(c0->op, VRKALLOC_PCALLOC);
  EXPECT_EQ(c0->a, 408u);
  EXPECT_EQ(c0->b, 8u);
  EXPECT_EQ(c0->result, p);
  EXPECT_EQ(vrkalloc_log_at(1)->op, VRKALLOC_PREALLOC);
  EXPECT_EQ(vrkalloc_log_at(1)->block, p);
  EXPECT_EQ(vrkalloc_log_at(1)->a, 9u);
  EXPECT_EQ(vrkalloc_log_at(2)->op, VRKALLOC_PFREE);
  EXPECT_EQ(vrkalloc_log_at(2)->block, q);
  EXPECT_EQ(vrkalloc_log_at(3)->refused, 1);
  EXPECT_EQ(vrkalloc_log_at(4), nullptr);
}

TEST(AllocStandin, ExecutableBlocks) {
  const uint32_t live = vrkalloc_live(VRKALLOC_FAMILY_X);
  auto* code = static_cast<uint8_t*>(PcallocX(5000, 1, 0));
  ASSERT_NE(code, nullptr);
  EXPECT_EQ(vrkalloc_live(VRKALLOC_FAMILY_X), live + 1);
  for (int i = 0; i < 5000; ++i) ASSERT_EQ(code[i], 0) << i;
  // mov eax, 42; ret
  const uint8_t body[] = {0xB8, 0x2A, 0x00, 0x00, 0x00, 0xC3};
  std::memcpy(code, body, sizeof body);
  int (*fn)() = reinterpret_cast<int (*)()>(code);
  EXPECT_EQ(fn(), 42);
  PfreeX(code);
  EXPECT_EQ(vrkalloc_live(VRKALLOC_FAMILY_X), live);
}

TEST(AllocStandin, SystemAnswers) {
  EXPECT_EQ(GetOSType(), 3);
  EXPECT_EQ(GetOSVersion(), 0x2001);
  vrkalloc_set_os(2, 0x1000);
  EXPECT_EQ(GetOSType(), 2);
  EXPECT_EQ(GetOSVersion(), 0x1000);
  vrkalloc_reset();
  EXPECT_EQ(GetOSType(), 3);
  EXPECT_NE(GetNULLSecurityAttr(), nullptr);
  EXPECT_EQ(GetNULLSecurityAttr(), GetNULLSecurityAttr());
}

TEST(AllocStandinDeath, WrongReleaseAborts) {
  void* x = PcallocX(16, 1, 0);
  EXPECT_DEATH(Pfree(x), "wrong operation");
  PfreeX(x);
}

}  // namespace
