// Stand-in of the product's virtual-file library: a handle over a real file
// or a memory buffer, read by copying or, for memory-held files, in place;
// plus fault injection and a per-handle log of operations for tests.
#include "vrkvfile.h"
#include "vrk_standin_ctl.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <algorithm>
#include <cstring>

namespace {

constexpr uint32_t kMagic = 0x56464c45u;  // "VFLE"

struct VFile {
  uint32_t magic = kMagic;
  int mode = VRKVFILE_COPY;
  int fd = -1;                       // real file read by copying
  const uint8_t *memory = nullptr;   // memory buffer or file read at open
  bool owns_memory = false;
  uint32_t length = 0;
  uint32_t position = 0;
  bool fail_length = false;
  bool fail_seek = false;
  uint32_t read_limit = 0xffffffffu;
  VrkVFileCall *log = nullptr;
  uint32_t log_size = 0;
  uint32_t log_cap = 0;
};

pthread_mutex_t g_count_mutex = PTHREAD_MUTEX_INITIALIZER;
uint32_t g_open = 0;

void CountOpen(bool opened) {
  pthread_mutex_lock(&g_count_mutex);
  if (opened) {
    ++g_open;
  } else {
    --g_open;
  }
  pthread_mutex_unlock(&g_count_mutex);
}

VFile *Get(VFileHandle handle) {
  auto *f = static_cast<VFile *>(handle);
  if (!f || f->magic != kMagic) {
    static const char msg[] = "vrkvfile stand-in: invalid handle\n";
    (void)!write(2, msg, sizeof msg - 1);
    abort();
  }
  return f;
}

void Log(VFile *f, int op, uint32_t position, uint32_t size, uint32_t count, uint32_t result, bool in_place) {
  if (f->log_size == f->log_cap) {
    uint32_t cap = f->log_cap ? f->log_cap * 2 : 64;
    auto *grown = static_cast<VrkVFileCall *>(std::realloc(f->log, cap * sizeof(VrkVFileCall)));
    if (!grown) return;
    f->log = grown;
    f->log_cap = cap;
  }
  f->log[f->log_size++] = VrkVFileCall{op, position, size, count, result, in_place ? 1 : 0};
}

VFile *NewFile(int mode) {
  auto *f = static_cast<VFile *>(std::calloc(1, sizeof(VFile)));
  if (!f) return nullptr;
  *f = VFile{};
  f->mode = (mode == VRKVFILE_IN_MEMORY) ? VRKVFILE_IN_MEMORY : VRKVFILE_COPY;
  CountOpen(true);
  return f;
}

// Bytes that may be delivered from the current position: up to the end of
// the file and up to the injected read limit.
uint32_t Available(const VFile *f) {
  uint32_t end = f->length < f->read_limit ? f->length : f->read_limit;
  return f->position < end ? end - f->position : 0;
}

// Copies up to `bytes` bytes from the current position into dst.
uint32_t CopyOut(VFile *f, void *dst, uint32_t bytes) {
  if (bytes == 0) return 0;  // the position may lie far past the end
  if (f->memory) {
    std::memcpy(dst, f->memory + f->position, bytes);
    return bytes;
  }
  uint32_t done = 0;
  while (done < bytes) {
    // off_t is 64 bits wide here (see the build), so positions past 2 GiB
    // are read correctly.
    const ssize_t n = pread(f->fd, static_cast<char *>(dst) + done, bytes - done,
                            static_cast<off_t>(f->position) + static_cast<off_t>(done));
    if (n <= 0) break;
    done += uint32_t(n);
  }
  return done;
}

}  // namespace

extern "C" {

VFileHandle vrkvfile_open_path(const char *path, int mode) {
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return nullptr;  // errno says why
  struct stat st;
  int why = 0;
  if (fstat(fd, &st) != 0) {
    why = errno;
  } else if (S_ISDIR(st.st_mode)) {
    why = EISDIR;
  } else if (!S_ISREG(st.st_mode)) {
    why = EINVAL;
  } else if (static_cast<uint64_t>(st.st_size) > 0xfffffffeu) {
    // Lengths and positions of the interface are 32-bit; 0xffffffff is the
    // error answer of VFilelength.
    why = EFBIG;
  }
  if (why != 0) {
    close(fd);
    errno = why;
    return nullptr;
  }
  VFile *f = NewFile(mode);
  if (!f) {
    close(fd);
    return nullptr;
  }
  f->length = uint32_t(st.st_size);
  if (f->mode == VRKVFILE_IN_MEMORY) {
    auto *data = static_cast<uint8_t *>(std::malloc(f->length ? f->length : 1));
    f->fd = fd;
    if (!data || CopyOut(f, data, f->length) != f->length) {
      std::free(data);
      vrkvfile_close(f);
      return nullptr;
    }
    close(fd);
    f->fd = -1;
    f->memory = data;
    f->owns_memory = true;
  } else {
    f->fd = fd;
  }
  return f;
}

VFileHandle vrkvfile_open_memory(const void *data, uint32_t size, int mode) {
  VFile *f = NewFile(mode);
  if (!f) return nullptr;
  static const uint8_t kEmpty[1] = {0};
  f->memory = data ? static_cast<const uint8_t *>(data) : kEmpty;
  f->length = data ? size : 0;
  return f;
}

void vrkvfile_close(VFileHandle handle) {
  if (!handle) return;
  VFile *f = Get(handle);
  if (f->fd >= 0) close(f->fd);
  if (f->owns_memory) std::free(const_cast<uint8_t *>(f->memory));
  std::free(f->log);
  f->magic = 0;
  std::free(f);
  CountOpen(false);
}

uint32_t vrkvfile_open_count(void) {
  pthread_mutex_lock(&g_count_mutex);
  uint32_t n = g_open;
  pthread_mutex_unlock(&g_count_mutex);
  return n;
}

void vrkvfile_fail_length(VFileHandle handle, int on) { Get(handle)->fail_length = on != 0; }
void vrkvfile_fail_seek(VFileHandle handle, int on) { Get(handle)->fail_seek = on != 0; }
void vrkvfile_fail_reads_from(VFileHandle handle, uint32_t limit) { Get(handle)->read_limit = limit; }

uint32_t vrkvfile_log_size(VFileHandle handle) { return Get(handle)->log_size; }

const VrkVFileCall *vrkvfile_log_at(VFileHandle handle, uint32_t i) {
  VFile *f = Get(handle);
  return i < f->log_size ? &f->log[i] : nullptr;
}

void vrkvfile_log_clear(VFileHandle handle) { Get(handle)->log_size = 0; }

int VSeek(VFileHandle handle, int32_t offset, int whence) {
  VFile *f = Get(handle);
  int64_t base = whence == 0 ? 0 : whence == 1 ? int64_t(f->position) : int64_t(f->length);
  int64_t target = base + offset;
  bool ok = !f->fail_seek && (whence >= 0 && whence <= 2) && target >= 0 && target <= 0xffffffffLL;
  Log(f, VRKVFILE_SEEK, f->position, uint32_t(offset), uint32_t(whence), ok ? 0u : 0xffffffffu, false);
  if (!ok) return -1;
  f->position = uint32_t(target);
  return 0;
}

int32_t VTell(VFileHandle handle) { return int32_t(Get(handle)->position); }

uint32_t VRead(void *buffer, uint32_t size, uint32_t count, VFileHandle handle) {
  VFile *f = Get(handle);
  uint32_t start = f->position;
  uint32_t elements = 0;
  if (size != 0) {
    uint32_t want = uint32_t(std::min<uint64_t>(uint64_t(size) * count, Available(f)) / size) * size;
    uint32_t got = CopyOut(f, buffer, want);
    elements = got / size;
    f->position += elements * size;
  }
  Log(f, VRKVFILE_READ, start, size, count, elements, false);
  return elements;
}

uint32_t VReadPtr(void **pointer, uint32_t size, uint32_t count, VFileHandle handle) {
  VFile *f = Get(handle);
  uint32_t start = f->position;
  uint32_t elements = 0;
  bool in_place = false;
  if (size != 0) {
    uint32_t want = uint32_t(std::min<uint64_t>(uint64_t(size) * count, Available(f)) / size) * size;
    if (f->mode == VRKVFILE_IN_MEMORY && f->memory) {
      *pointer = const_cast<uint8_t *>(f->memory + f->position);
      in_place = true;
      elements = want / size;
    } else {
      elements = CopyOut(f, *pointer, want) / size;
    }
    f->position += elements * size;
  }
  Log(f, VRKVFILE_READPTR, start, size, count, elements, in_place);
  return elements;
}

uint32_t VFilelength(VFileHandle handle) {
  VFile *f = Get(handle);
  return f->fail_length ? 0xffffffffu : f->length;
}

}  // extern "C"
