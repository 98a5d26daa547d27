// What fuzz targets for files share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

#include "common/Handle.h"

// The next bytes of the input as a number, the highest first; fewer where it ends.
inline std::uint32_t takeNumber(const std::uint8_t*& data, std::size_t& size, int bytes) {
  std::uint32_t value = 0;
  for (; bytes > 0 && size > 0; --bytes, --size) value = value << 8 | *data++;
  return value;
}

// Gives fuzzed bytes to code that opens a file by its path, without touching a disk.
class MemoryFile {
 public:
  MemoryFile(const std::uint8_t* bytes, std::size_t length) : file(memfd_create("fuzz", MFD_CLOEXEC)) {
    std::size_t written = 0;
    while (written < length) {
      const ssize_t count = write(file.get(), bytes + written, length - written);
      if (count <= 0) break;
      written += static_cast<std::size_t>(count);
    }
  }
  int descriptor() const { return file.get(); }
  std::string path() const { return "/proc/self/fd/" + std::to_string(file.get()); }

 private:
  FileDescriptor file;
};
