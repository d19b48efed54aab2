// A gtest listener that fails any test after which more allocator blocks or
// virtual files are live than before it.
#include "support/leak_check.h"

#include <gtest/gtest.h>

#include "vrk_standin_ctl.h"

namespace vrk::test {

uint32_t LiveBlocks() { return vrkalloc_live(VRKALLOC_FAMILY_P) + vrkalloc_live(VRKALLOC_FAMILY_X); }

namespace {

class LeakCheck : public ::testing::EmptyTestEventListener {
  void OnTestStart(const ::testing::TestInfo&) override {
    vrkalloc_reset();
    blocks_ = vrkalloc_live(VRKALLOC_FAMILY_P);
    exec_blocks_ = vrkalloc_live(VRKALLOC_FAMILY_X);
    files_ = vrkvfile_open_count();
  }
  void OnTestEnd(const ::testing::TestInfo&) override {
    vrkalloc_reset();
    EXPECT_EQ(vrkalloc_live(VRKALLOC_FAMILY_P), blocks_) << "allocator blocks leaked by this test";
    EXPECT_EQ(vrkalloc_live(VRKALLOC_FAMILY_X), exec_blocks_) << "executable blocks leaked by this test";
    EXPECT_EQ(vrkvfile_open_count(), files_) << "virtual files left open by this test";
  }
  uint32_t blocks_ = 0, exec_blocks_ = 0, files_ = 0;
};

// Installed before main() runs the tests.
const bool kInstalled = [] {
  ::testing::UnitTest::GetInstance()->listeners().Append(new LeakCheck);
  return true;
}();

}  // namespace
}  // namespace vrk::test
