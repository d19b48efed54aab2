// Writing the sample tree.
#include "scan/samples.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <vector>

#include "scan/database.h"

namespace vrk::scan {
namespace {

bool Write(const std::string& path, const std::vector<unsigned char>& data, std::string& error) {
  FILE* f = std::fopen(path.c_str(), "wb");
  if (!f || (!data.empty() && std::fwrite(data.data(), 1, data.size(), f) != data.size())) {
    error = path + ": " + std::strerror(errno);
    if (f) std::fclose(f);
    return false;
  }
  if (std::fclose(f) != 0) {
    error = path + ": " + std::strerror(errno);
    return false;
  }
  return true;
}

std::vector<unsigned char> Bytes(std::string_view s) { return {s.begin(), s.end()}; }

// Deterministic filler that looks like text.
std::vector<unsigned char> Prose(uint32_t size, uint32_t seed) {
  static constexpr std::string_view kWords[] = {"scan ", "file ", "clean ", "text ", "byte ", "data ", "sample ",
                                                "quiet ", "line\n", "table "};
  std::vector<unsigned char> out;
  out.reserve(size);
  uint32_t x = seed * 2654435761u + 1;
  while (out.size() < size) {
    x = x * 1664525u + 1013904223u;
    for (char c : kWords[(x >> 16) % 10]) out.push_back(uint8_t(c));
  }
  out.resize(size);
  return out;
}

void Put(std::vector<unsigned char>& data, size_t at, std::string_view s) {
  std::memcpy(data.data() + at, s.data(), s.size());
}

}  // namespace

bool WriteSampleTree(const std::string& dir, uint32_t large_bytes, std::string& error) {
  for (const std::string& d : {dir, dir + "/clean", dir + "/infected", dir + "/own"}) {
    if (mkdir(d.c_str(), 0755) != 0 && errno != EEXIST) {
      error = d + ": " + std::strerror(errno);
      return false;
    }
  }
  const std::string_view test = TestFileString();

  std::vector<unsigned char> embedded = Prose(5000, 2);
  Put(embedded, 1237, test);  // odd offset, inside the fingerprinted head

  std::vector<unsigned char> counting(1000);
  for (uint32_t i = 0; i < counting.size(); ++i) counting[i] = uint8_t(i * 131 + 7);

  std::vector<unsigned char> gap = Prose(3000, 3);
  Put(gap, 2001, "VRK-abcdeGAP!");

  // The test string crosses the border of the scan's 1 MiB pieces.
  std::vector<unsigned char> large = Prose(large_bytes, 4);
  if (large_bytes > (1u << 20) + 100) Put(large, (1u << 20) - 30, test);

  return Write(dir + "/clean/readme.txt", Prose(1500, 1), error) &&
         Write(dir + "/clean/empty", {}, error) &&
         Write(dir + "/clean/almost.txt", Bytes(test.substr(0, 67)), error) &&
         Write(dir + "/infected/test-file.com", Bytes(test), error) &&
         Write(dir + "/infected/embedded.bin", embedded, error) &&
         Write(dir + "/own/counting.bin", counting, error) &&
         Write(dir + "/own/gap.txt", gap, error) &&
         Write(dir + "/large.bin", large, error);
}

}  // namespace vrk::scan
