// Replays fuzz inputs without libFuzzer: every file named on the command
// line, or found directly inside a named directory, is fed to the target
// once. Used by ctest to keep the corpus passing under the sanitizers.
#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

bool ReadFile(const std::string& path, std::vector<uint8_t>& out) {
  FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) return false;
  out.clear();
  uint8_t buffer[65536];
  size_t n;
  while ((n = std::fread(buffer, 1, sizeof buffer, f)) > 0) out.insert(out.end(), buffer, buffer + n);
  std::fclose(f);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  int replayed = 0;
  std::vector<uint8_t> data;
  for (int i = 1; i < argc; ++i) {
    std::vector<std::string> files;
    struct stat st;
    if (stat(argv[i], &st) != 0) {
      std::fprintf(stderr, "replay: cannot read %s\n", argv[i]);
      return 2;
    }
    if (S_ISDIR(st.st_mode)) {
      if (DIR* dir = opendir(argv[i])) {
        while (dirent* e = readdir(dir)) {
          if (e->d_name[0] != '.') files.push_back(std::string(argv[i]) + "/" + e->d_name);
        }
        closedir(dir);
      }
    } else {
      files.push_back(argv[i]);
    }
    for (const std::string& file : files) {
      if (!ReadFile(file, data)) {
        std::fprintf(stderr, "replay: cannot read %s\n", file.c_str());
        return 2;
      }
      LLVMFuzzerTestOneInput(data.data(), data.size());
      ++replayed;
    }
  }
  std::printf("replayed %d inputs\n", replayed);
  return replayed > 0 ? 0 : 1;
}
