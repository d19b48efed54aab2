// PE header checks and RVA mapping over header records built in memory.
#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <tuple>
#include <vector>

#include "pe_writer.h"

namespace vrk::test {
namespace {

constexpr uint32_t kProtect = PE_STATUS_INVALID_IMAGE_PROTECT;
constexpr uint32_t kFormat = PE_STATUS_INVALID_IMAGE_FORMAT;

// The writer's sound headers over three sections following one another; the
// last has VirtualSize 0, so its raw size is its extent.
struct Headers : PeWriter {
  Headers() {
    Sections({{0x1000, 0x800, 0x400, 0x800}, {0x2000, 0x1234, 0xC00, 0x1400}, {0x4000, 0, 0x2000, 0x200}});
    nt.OptionalHeader.SizeOfImage = 0x5000;
  }
  // (VirtualAddress, VirtualSize, PointerToRawData, SizeOfRawData) of each.
  void Sections(const std::vector<std::array<uint32_t, 4>>& list) {
    sections.clear();
    for (auto [va, vsize, raw_ptr, raw_size] : list) {
      PE_IMAGE_SECTION_HEADER& s = sections.emplace_back();
      std::tie(s.VirtualAddress, s.VirtualSize, s.PointerToRawData, s.SizeOfRawData) = std::tie(va, vsize, raw_ptr, raw_size);
    }
    nt.FileHeader.NumberOfSections = uint16_t(list.size());
  }
  uint32_t Verify() const { return PE_VerifyImageHeader(&nt, sections.data()); }
};

TEST(PeSignatures, MzBothOrdersAndPeExactly) {
  for (auto [bytes, is] : {std::pair{"MZ", 1}, {"ZM", 1}, {"MM", 0}, {"mz", 0}}) EXPECT_EQ(PE_EsMZ(bytes), is) << bytes;
  for (auto [bytes, is] : {std::pair{"PE\0", 1}, {"QE\0", 0}, {"PE\0\1", 0}, {"EP\0", 0}}) EXPECT_EQ(PE_EsPE(bytes), is) << bytes;
}

TEST(PeVerify, ChecksInOrder) {
  struct Case {
    const char* what;
    std::function<void(Headers&)> change;
    uint32_t expected;
  };
  const Case cases[] = {
      {"sound", [](Headers&) {}, 0},
      {"wrong signature", [](Headers& h) { h.nt.Signature = 0x00004551; }, kProtect},
      {"machine and optional size 0", [](Headers& h) { h.nt.FileHeader.Machine = 0; h.nt.FileHeader.SizeOfOptionalHeader = 0; }, kProtect},
      {"machine 0 alone", [](Headers& h) { h.nt.FileHeader.Machine = 0; }, kFormat},
      {"machine 0 beats not executable", [](Headers& h) { h.nt.FileHeader.Machine = 0; h.nt.FileHeader.SizeOfOptionalHeader = 0; h.nt.FileHeader.Characteristics = 0; }, kProtect},
      {"not executable", [](Headers& h) { h.nt.FileHeader.Characteristics = 0x2100; }, kFormat},
      {"PE32+ magic", [](Headers& h) { h.nt.OptionalHeader.Magic = 0x020B; }, kFormat},
      {"file alignment 0x100 vs 0x1000", [](Headers& h) { h.nt.OptionalHeader.FileAlignment = 0x100; }, kFormat},
      {"file alignment 0x600", [](Headers& h) { h.nt.OptionalHeader.FileAlignment = 0x600; }, kFormat},
      {"file alignment 0", [](Headers& h) { h.nt.OptionalHeader.FileAlignment = 0; }, kFormat},
      {"file alignment equal to section alignment", [](Headers& h) { h.nt.OptionalHeader.FileAlignment = 0x1000; }, 0},
      {"section alignment 0x3000", [](Headers& h) { h.nt.OptionalHeader.SectionAlignment = 0x3000; }, kFormat},
      {"SizeOfImage 0x77000000", [](Headers& h) { h.nt.OptionalHeader.SizeOfImage = 0x77000000; }, 0},
      {"SizeOfImage 0x77000001", [](Headers& h) { h.nt.OptionalHeader.SizeOfImage = 0x77000001; }, kFormat},
      {"wrong machine", [](Headers& h) { h.nt.FileHeader.Machine = 0x8664; }, kFormat},
      {"base not 64 KiB aligned", [](Headers& h) { h.nt.OptionalHeader.ImageBase = 0x10001000; }, kFormat},
      {"SizeOfHeaders 0", [](Headers& h) { h.nt.OptionalHeader.SizeOfHeaders = 0; }, kFormat},
      {"SizeOfHeaders = SizeOfImage", [](Headers& h) { h.nt.OptionalHeader.SizeOfHeaders = 0x5000; }, kFormat},
      {"section alignment 0", [](Headers& h) { h.nt.OptionalHeader.SectionAlignment = 0; }, kFormat},
      {"section alignment 1", [](Headers& h) { h.nt.OptionalHeader.SectionAlignment = 1; h.nt.OptionalHeader.FileAlignment = 1; }, kFormat},
      {"equal alignments of 0x100", [](Headers& h) {
         h.nt.OptionalHeader.SectionAlignment = h.nt.OptionalHeader.FileAlignment = 0x100;
         h.Sections({{0x400, 0x100, 0x400, 0x100}});
       }, 0},
      {"gap between sections", [](Headers& h) { h.sections[2].VirtualAddress = 0x5000; }, kFormat},
      {"overlapping sections", [](Headers& h) { h.sections[1].VirtualAddress = 0x1800; }, kFormat},
      {"empty section", [](Headers& h) { h.sections[1].VirtualSize = 0; h.sections[1].SizeOfRawData = 0; }, kFormat},
      {"raw end wraps", [](Headers& h) { h.sections[0].PointerToRawData = 0xFFFFFF00; }, kFormat},
      {"raw end rounding wraps", [](Headers& h) { h.sections[0].PointerToRawData = 0xFFFFF000; h.sections[0].SizeOfRawData = 0xF01; }, kFormat},
      {"next section address wraps", [](Headers& h) { h.sections[2].VirtualSize = 0xFFFFF000; }, kFormat},
      {"no sections", [](Headers& h) { h.Sections({}); }, 0},
      {"last section past SizeOfImage is not checked", [](Headers& h) { h.sections[2].VirtualSize = 0x10000; }, 0},
  };
  for (const Case& c : cases) {
    Headers h;
    c.change(h);
    EXPECT_EQ(h.Verify(), c.expected) << c.what;
  }
  for (uint32_t count : {96u, 97u}) {  // the section count limit
    Headers h;
    std::vector<std::array<uint32_t, 4>> list;
    for (uint32_t i = 0; i < count; ++i) list.push_back({0x1000 * (i + 1), 0x1000, 0x400 + 0x200 * i, 0x200});
    h.Sections(list);
    h.nt.OptionalHeader.SizeOfImage = 0x1000 * (count + 1);
    EXPECT_EQ(h.Verify(), count == 96 ? 0u : kFormat) << count;
  }
}

TEST(PeRva, PlainLookupTakesHighestIndexAndAnswersEverything) {
  Headers h;
  const auto* s = h.sections.data();
  // (RVA, section, position): headers map to themselves; a gap or anything
  // past the end goes to the last section, whose position may wrap.
  const std::array<uint32_t, 3> cases[] = {
      {0x0010, 0, 0x0010}, {0x1000, 0, 0x400},  {0x17FF, 0, 0xBFF},  {0x1900, 2, 0x1900u - 0x4000 + 0x2000},
      {0x2000, 1, 0xC00},  {0x3233, 1, 0x1E33}, {0x4100, 2, 0x2100}, {0x9000, 2, 0x7000},
  };
  for (auto [rva, section, pos] : cases) {
    EXPECT_EQ(PE_SeccionDeRVA(s, 3, rva), section) << rva;
    EXPECT_EQ(PE_SeekDeRVA(s, 3, rva), pos) << rva;
  }
  EXPECT_EQ(PE_SeccionDeRVA(nullptr, 3, 0x1000), 0u);
  EXPECT_EQ(PE_SeccionDeRVA(s, 0, 0x2000), 0u);
  EXPECT_EQ(PE_SeekDeRVA(s, 0, 0x2000), 0x2000u);
  // Overlap: the plain lookup takes the higher index, the Ex lookup the first.
  h.sections[1].VirtualAddress = 0x1400;
  EXPECT_EQ(PE_SeccionDeRVA(s, 3, 0x1500), 1u);
  uint32_t index = 99;
  EXPECT_EQ(PE_SeccionDeRVAEx(s, &h.nt, 0x1500, &index), PE_RVA_IN_SECTION);
  EXPECT_EQ(index, 0u);
}

TEST(PeRva, ExLookupPlacementCodes) {
  Headers h;
  const std::array<uint32_t, 3> cases[] = {  // (RVA, code, index)
      {0x0000, PE_RVA_IN_HEADERS, 0}, {0x03FF, PE_RVA_IN_HEADERS, 0}, {0x0400, PE_RVA_BEFORE_SECTIONS, 0},
      {0x1000, PE_RVA_IN_SECTION, 0}, {0x1800, PE_RVA_IN_GAP, 0},     {0x2000, PE_RVA_IN_SECTION, 1},
      {0x3233, PE_RVA_IN_SECTION, 1}, {0x3234, PE_RVA_IN_GAP, 1},     {0x41FF, PE_RVA_IN_SECTION, 2},
      {0x4200, PE_RVA_PAST_SECTIONS, 2},
  };
  for (auto [rva, code, expected] : cases) {
    uint32_t index = 77;
    EXPECT_EQ(uint32_t(PE_SeccionDeRVAEx(h.sections.data(), &h.nt, rva, &index)), code) << rva;
    EXPECT_EQ(index, expected) << rva;
  }
  uint32_t index = 77;
  EXPECT_EQ(PE_SeccionDeRVAEx(nullptr, &h.nt, 0x1000, &index), PE_RVA_BEFORE_SECTIONS);
  EXPECT_EQ(index, 0u);
}

TEST(PeRva, ExSeekCountsReadableBytes) {
  Headers h;
  h.Sections({{0x1000, 6000, 0x400, 5000}, {0x3000, 0x100, 0x1800, 0x200}});
  // (RVA, count, position); the headers give 1024 whatever SizeOfHeaders says.
  const std::array<uint32_t, 3> cases[] = {
      {0x0010, 1024, 0x0010},     {0x1000, 1024, 0x400}, {0x1000 + 4999, 1, 0x400 + 4999},  // last raw byte
      {0x1000 + 5000, 0, 0xDEAD}, {0x2800, 0, 0xDEAD},   {0x0500, 0, 0xDEAD},  // past the raw data, gap, before
      {0x3100, 0x100, 0x1900},  // past the last section's virtual end, inside its raw data
      {0x3200, 0, 0xDEAD},
  };
  for (auto [rva, count, expected] : cases) {
    uint32_t pos = 0xDEAD;
    EXPECT_EQ(uint32_t(PE_SeekDeRVAEx(h.sections.data(), &h.nt, rva, &pos)), count) << rva;
    EXPECT_EQ(pos, expected) << rva;
  }
}

}  // namespace
}  // namespace vrk::test
