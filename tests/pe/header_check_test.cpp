// PE header checks and RVA mapping over header records built in memory.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <vector>

#include "vrk_pe.h"

namespace {

constexpr uint32_t kProtect = PE_STATUS_INVALID_IMAGE_PROTECT;
constexpr uint32_t kFormat = PE_STATUS_INVALID_IMAGE_FORMAT;

// A sound image: headers 0x400, alignments 0x1000 / 0x200, three sections
// following one another.
struct Headers {
  PE_IMAGE_NT_HEADERS32 nt{};
  std::vector<PE_IMAGE_SECTION_HEADER> sections;
  Headers() {
    nt.Signature = 0x00004550;
    nt.FileHeader.Machine = 0x014C;
    nt.FileHeader.SizeOfOptionalHeader = 0xE0;
    nt.FileHeader.Characteristics = 0x2102;
    nt.OptionalHeader.Magic = 0x010B;
    nt.OptionalHeader.ImageBase = 0x10000000;
    nt.OptionalHeader.SectionAlignment = 0x1000;
    nt.OptionalHeader.FileAlignment = 0x200;
    nt.OptionalHeader.SizeOfImage = 0x5000;
    nt.OptionalHeader.SizeOfHeaders = 0x400;
    Add(0x1000, 0x800, 0x400, 0x800);
    Add(0x2000, 0x1234, 0xC00, 0x1400);
    Add(0x4000, 0, 0x2000, 0x200);  // VirtualSize 0: its raw size is its extent
  }
  void Add(uint32_t va, uint32_t vsize, uint32_t raw_ptr, uint32_t raw_size) {
    PE_IMAGE_SECTION_HEADER s{};
    s.VirtualAddress = va;
    s.VirtualSize = vsize;
    s.PointerToRawData = raw_ptr;
    s.SizeOfRawData = raw_size;
    sections.push_back(s);
    nt.FileHeader.NumberOfSections = uint16_t(sections.size());
  }
  uint32_t Verify() const { return PE_VerifyImageHeader(&nt, sections.data()); }
};

TEST(PeSignatures, MzBothOrdersAndPeExactly) {
  const uint8_t mz[] = {'M', 'Z'}, zm[] = {'Z', 'M'}, mm[] = {'M', 'M'}, lower[] = {'m', 'z'};
  EXPECT_EQ(PE_EsMZ(mz), 1);
  EXPECT_EQ(PE_EsMZ(zm), 1);
  EXPECT_EQ(PE_EsMZ(mm), 0);
  EXPECT_EQ(PE_EsMZ(lower), 0);
  const uint8_t pe[] = {'P', 'E', 0, 0}, qe[] = {'Q', 'E', 0, 0}, pe1[] = {'P', 'E', 0, 1}, ep[] = {'E', 'P', 0, 0};
  EXPECT_EQ(PE_EsPE(pe), 1);
  EXPECT_EQ(PE_EsPE(qe), 0);
  EXPECT_EQ(PE_EsPE(pe1), 0);
  EXPECT_EQ(PE_EsPE(ep), 0);
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
      {"section alignment 0x3000", [](Headers& h) { h.nt.OptionalHeader.SectionAlignment = 0x3000; }, kFormat},
      {"SizeOfImage 0x77000000", [](Headers& h) { h.nt.OptionalHeader.SizeOfImage = 0x77000000; }, 0},
      {"SizeOfImage 0x77000001", [](Headers& h) { h.nt.OptionalHeader.SizeOfImage = 0x77000001; }, kFormat},
      {"wrong machine", [](Headers& h) { h.nt.FileHeader.Machine = 0x8664; }, kFormat},
      {"base not 64 KiB aligned", [](Headers& h) { h.nt.OptionalHeader.ImageBase = 0x10001000; }, kFormat},
      {"SizeOfHeaders 0", [](Headers& h) { h.nt.OptionalHeader.SizeOfHeaders = 0; }, kFormat},
      {"SizeOfHeaders = SizeOfImage", [](Headers& h) { h.nt.OptionalHeader.SizeOfHeaders = 0x5000; }, kFormat},
      {"section alignment 0", [](Headers& h) { h.nt.OptionalHeader.SectionAlignment = 0; }, kFormat},
      {"section alignment 1", [](Headers& h) { h.nt.OptionalHeader.SectionAlignment = 1; h.nt.OptionalHeader.FileAlignment = 1; }, kFormat},
      {"gap between sections", [](Headers& h) { h.sections[2].VirtualAddress = 0x5000; }, kFormat},
      {"overlapping sections", [](Headers& h) { h.sections[1].VirtualAddress = 0x1800; }, kFormat},
      {"empty section", [](Headers& h) { h.sections[1].VirtualSize = 0; h.sections[1].SizeOfRawData = 0; }, kFormat},
      {"raw end wraps", [](Headers& h) { h.sections[0].PointerToRawData = 0xFFFFFF00; }, kFormat},
      {"raw end rounding wraps", [](Headers& h) { h.sections[0].PointerToRawData = 0xFFFFF000; h.sections[0].SizeOfRawData = 0xF01; }, kFormat},
      {"next section address wraps", [](Headers& h) { h.sections[2].VirtualSize = 0xFFFFF000; }, kFormat},
      {"no sections", [](Headers& h) { h.sections.clear(); h.nt.FileHeader.NumberOfSections = 0; }, 0},
      {"last section past SizeOfImage is not checked", [](Headers& h) { h.sections[2].VirtualSize = 0x10000; }, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Headers h;
    c.change(h);
    EXPECT_EQ(h.Verify(), c.expected);
  }
}

TEST(PeVerify, SectionCountLimitAndEqualSmallAlignments) {
  for (uint32_t count : {96u, 97u}) {
    SCOPED_TRACE(count);
    Headers h;
    h.sections.clear();
    h.nt.FileHeader.NumberOfSections = 0;
    for (uint32_t i = 0; i < count; ++i) h.Add(0x1000 * (i + 1), 0x1000, 0x400 + 0x200 * i, 0x200);
    h.nt.OptionalHeader.SizeOfImage = 0x1000 * (count + 1);
    EXPECT_EQ(h.Verify(), count == 96 ? 0u : kFormat);
  }
  Headers small;  // alignments of 0x100 pass only when equal
  small.nt.OptionalHeader.SectionAlignment = 0x100;
  small.nt.OptionalHeader.FileAlignment = 0x100;
  small.sections.clear();
  small.nt.FileHeader.NumberOfSections = 0;
  small.Add(0x400, 0x100, 0x400, 0x100);
  EXPECT_EQ(small.Verify(), 0u);
  Headers same;
  same.nt.OptionalHeader.FileAlignment = 0x1000;
  EXPECT_EQ(same.Verify(), 0u);
}

TEST(PeRva, PlainLookupTakesHighestIndexAndAnswersEverything) {
  Headers h;
  const auto* s = h.sections.data();
  struct Case {
    uint32_t rva, section, pos;
  };
  const Case cases[] = {
      {0x0010, 0, 0x0010},                         // headers map to themselves
      {0x1000, 0, 0x400},
      {0x17FF, 0, 0xBFF},
      {0x1900, 2, uint32_t(0x1900 - 0x4000 + 0x2000)},  // gap after 0: last section, wrapping position
      {0x2000, 1, 0xC00},
      {0x3233, 1, 0x1E33},                         // within raw size 0x1400 (larger than virtual size)
      {0x4100, 2, 0x2100},
      {0x9000, 2, 0x7000},                         // past everything: last section
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.rva);
    EXPECT_EQ(PE_SeccionDeRVA(s, 3, c.rva), c.section);
    EXPECT_EQ(PE_SeekDeRVA(s, 3, c.rva), c.pos);
  }
  EXPECT_EQ(PE_SeccionDeRVA(nullptr, 3, 0x1000), 0u);
  EXPECT_EQ(PE_SeccionDeRVA(s, 0, 0x2000), 0u);
  EXPECT_EQ(PE_SeekDeRVA(s, 0, 0x2000), 0x2000u);
  // Overlap: section 1 made to start inside section 0.
  h.sections[1].VirtualAddress = 0x1400;
  EXPECT_EQ(PE_SeccionDeRVA(s, 3, 0x1500), 1u);
  uint32_t index = 99;
  EXPECT_EQ(PE_SeccionDeRVAEx(s, &h.nt, 0x1500, &index), PE_RVA_IN_SECTION);
  EXPECT_EQ(index, 0u);
}

TEST(PeRva, ExLookupPlacementCodes) {
  Headers h;
  const auto* s = h.sections.data();
  struct Case {
    uint32_t rva;
    int code;
    uint32_t index;
  };
  const Case cases[] = {
      {0x0000, PE_RVA_IN_HEADERS, 0},  {0x03FF, PE_RVA_IN_HEADERS, 0},   {0x0400, PE_RVA_BEFORE_SECTIONS, 0},
      {0x1000, PE_RVA_IN_SECTION, 0},  {0x1800, PE_RVA_IN_GAP, 0},       {0x2000, PE_RVA_IN_SECTION, 1},
      {0x3233, PE_RVA_IN_SECTION, 1},  {0x3234, PE_RVA_IN_GAP, 1},      {0x41FF, PE_RVA_IN_SECTION, 2},
      {0x4200, PE_RVA_PAST_SECTIONS, 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.rva);
    uint32_t index = 77;
    EXPECT_EQ(PE_SeccionDeRVAEx(s, &h.nt, c.rva, &index), c.code);
    EXPECT_EQ(index, c.index);
  }
  uint32_t index = 77;
  EXPECT_EQ(PE_SeccionDeRVAEx(nullptr, &h.nt, 0x1000, &index), PE_RVA_BEFORE_SECTIONS);
  EXPECT_EQ(index, 0u);
}

TEST(PeRva, ExSeekCountsReadableBytes) {
  Headers h;
  h.sections.clear();
  h.nt.FileHeader.NumberOfSections = 0;
  h.Add(0x1000, 6000, 0x400, 5000);
  h.Add(0x3000, 0x100, 0x1800, 0x200);
  const auto* s = h.sections.data();
  struct Case {
    uint32_t rva;
    int count;
    uint32_t pos;
  };
  const Case cases[] = {
      {0x0010, 1024, 0x0010},             // headers: 1024 whatever SizeOfHeaders says
      {0x1000, 1024, 0x400},              // first byte of 5,000 raw bytes
      {0x1000 + 4999, 1, 0x400 + 4999},   // last raw byte
      {0x1000 + 5000, 0, 0xDEAD},         // one past the raw data
      {0x2800, 0, 0xDEAD},                // gap
      {0x0500, 0, 0xDEAD},                // after the headers, before the first section
      {0x3100, 0x100, 0x1900},            // past the last section's virtual end, inside its raw data
      {0x3200, 0, 0xDEAD},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.rva);
    uint32_t pos = 0xDEAD;
    EXPECT_EQ(PE_SeekDeRVAEx(s, &h.nt, c.rva, &pos), c.count);
    EXPECT_EQ(pos, c.pos);
  }
}

}  // namespace
