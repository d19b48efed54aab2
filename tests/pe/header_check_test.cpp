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

// The writer's sound headers over four sections following one another:
// 5,000 raw bytes under a larger virtual size; raw data past the virtual size;
// VirtualSize 0, so the raw size is the extent; raw past a last virtual size.
struct Headers : PeWriter {
  Headers() {
    Sections({{0x1000, 6000, 0x400, 5000}, {0x3000, 0x1234, 0x1800, 0x1400}, {0x5000, 0, 0x2C00, 0x200}, {0x6000, 0x100, 0x2E00, 0x200}});
    nt.OptionalHeader.SizeOfImage = 0x7000;
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
      {"SizeOfHeaders = SizeOfImage", [](Headers& h) { h.nt.OptionalHeader.SizeOfHeaders = 0x7000; }, kFormat},
      {"section alignment 0", [](Headers& h) { h.nt.OptionalHeader.SectionAlignment = 0; }, kFormat},
      {"section alignment 1", [](Headers& h) { h.nt.OptionalHeader.SectionAlignment = 1; h.nt.OptionalHeader.FileAlignment = 1; }, kFormat},
      {"equal alignments of 0x100", [](Headers& h) {
         h.nt.OptionalHeader.SectionAlignment = h.nt.OptionalHeader.FileAlignment = 0x100;
         h.Sections({{0x400, 0x100, 0x400, 0x100}});
       }, 0},
      {"gap between sections", [](Headers& h) { h.sections[3].VirtualAddress = 0x7000; }, kFormat},
      {"overlapping sections", [](Headers& h) { h.sections[1].VirtualAddress = 0x1800; }, kFormat},
      {"empty section", [](Headers& h) { h.sections[1].VirtualSize = 0; h.sections[1].SizeOfRawData = 0; }, kFormat},
      {"raw end wraps", [](Headers& h) { h.sections[0].PointerToRawData = 0xFFFFFF00; }, kFormat},
      {"raw end rounding wraps", [](Headers& h) { h.sections[0].PointerToRawData = 0xFFFFF000; h.sections[0].SizeOfRawData = 0xF01; }, kFormat},
      {"next section address wraps", [](Headers& h) { h.sections[3].VirtualSize = 0xFFFFF000; }, kFormat},
      {"no sections", [](Headers& h) { h.Sections({}); }, 0},
      {"last section past SizeOfImage is not checked", [](Headers& h) { h.sections[3].VirtualSize = 0x10000; }, 0},
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

// Each RVA through the four lookups. The plain ones answer everything: the
// headers map to themselves, a gap or anything past the end goes to the last
// section (the position may wrap). The Ex lookup gives a placement code; the
// Ex seek gives the bytes readable there, at most 1024, and leaves the
// position alone (0xDEAD here) when there are none.
TEST(PeRva, LookupsOfEachRva) {
  Headers h;
  const auto* s = h.sections.data();
  struct Case {
    uint32_t rva, section, pos;
    int code;
    uint32_t index;
    int count;
    uint32_t ex_pos;
  };
  const Case cases[] = {
      {0x03FF, 0, 0x03FF, PE_RVA_IN_HEADERS, 0, 1024, 0x03FF},
      {0x0400, 0, 0x0400, PE_RVA_BEFORE_SECTIONS, 0, 0, 0xDEAD},
      {0x1000, 0, 0x0400, PE_RVA_IN_SECTION, 0, 1024, 0x0400},
      {0x1000 + 4999, 0, 0x0400 + 4999, PE_RVA_IN_SECTION, 0, 1, 0x0400 + 4999},  // the last raw byte
      {0x1000 + 5000, 0, 0x0400 + 5000, PE_RVA_IN_SECTION, 0, 0, 0xDEAD},
      {0x2800, 3, 0x2800u - 0x6000 + 0x2E00, PE_RVA_IN_GAP, 0, 0, 0xDEAD},
      {0x4233, 1, 0x2A33, PE_RVA_IN_SECTION, 1, 0x1CD, 0x2A33},
      {0x4234, 1, 0x2A34, PE_RVA_IN_GAP, 1, 0, 0xDEAD},  // raw data past the virtual size counts for the plain ones only
      {0x51FF, 2, 0x2DFF, PE_RVA_IN_SECTION, 2, 1, 0x2DFF},
      {0x5200, 3, 0x2000, PE_RVA_IN_GAP, 2, 0, 0xDEAD},
      {0x6100, 3, 0x2F00, PE_RVA_PAST_SECTIONS, 3, 0x100, 0x2F00},  // past the last virtual size, inside its raw data
      {0x6200, 3, 0x3000, PE_RVA_PAST_SECTIONS, 3, 0, 0xDEAD},
      {0x9000, 3, 0x5E00, PE_RVA_PAST_SECTIONS, 3, 0, 0xDEAD},
      // 2 GiB or more past the raw data the signed count wraps positive: the
      // caller bounds the position by the file.
      {0xF0000000, 3, 0xF0000000u - 0x6000 + 0x2E00, PE_RVA_PAST_SECTIONS, 3, 1024, 0xF0000000u - 0x6000 + 0x2E00},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.rva);
    EXPECT_EQ(PE_SeccionDeRVA(s, 4, c.rva), c.section);
    EXPECT_EQ(PE_SeekDeRVA(s, 4, c.rva), c.pos);
    uint32_t index = 77, pos = 0xDEAD;
    EXPECT_EQ(PE_SeccionDeRVAEx(s, &h.nt, c.rva, &index), c.code);
    EXPECT_EQ(index, c.index);
    EXPECT_EQ(PE_SeekDeRVAEx(s, &h.nt, c.rva, &pos), c.count);
    EXPECT_EQ(pos, c.ex_pos);
  }
  // No table.
  uint32_t index = 77;
  EXPECT_EQ(PE_SeccionDeRVA(nullptr, 4, 0x1000), 0u);
  EXPECT_EQ(PE_SeccionDeRVA(s, 0, 0x2000), 0u);
  EXPECT_EQ(PE_SeekDeRVA(s, 0, 0x2000), 0x2000u);
  EXPECT_EQ(PE_SeccionDeRVAEx(nullptr, &h.nt, 0x1000, &index), PE_RVA_BEFORE_SECTIONS);
  EXPECT_EQ(index, 0u);
  // Overlap: the plain lookup takes the highest index, the Ex lookup the lowest.
  h.sections[1].VirtualAddress = 0x1400;
  EXPECT_EQ(PE_SeccionDeRVA(s, 4, 0x1500), 1u);
  EXPECT_EQ(PE_SeccionDeRVAEx(s, &h.nt, 0x1500, &index), PE_RVA_IN_SECTION);
  EXPECT_EQ(index, 0u);
}

}  // namespace
}  // namespace vrk::test
