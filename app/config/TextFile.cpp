#include "app/config/TextFile.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>

namespace {

// File systems whose ordinary files have no content of their own.
constexpr std::array kMadeUpByKernel = {PROC_SUPER_MAGIC,   SYSFS_MAGIC,      DEBUGFS_MAGIC,
                                        TRACEFS_MAGIC,      SECURITYFS_MAGIC, CGROUP_SUPER_MAGIC,
                                        CGROUP2_SUPER_MAGIC};

// 0, or why the open file is not to be read.
int refusalOf(int descriptor) {
  struct stat status {};
  struct statfs system {};
  if (fstat(descriptor, &status) != 0 || fstatfs(descriptor, &system) != 0) return errno;
  if (std::ranges::find(kMadeUpByKernel, system.f_type) != kMadeUpByKernel.end()) return EINVAL;
  return static_cast<std::size_t>(status.st_size) > kMaxTextBytes ? EFBIG : 0;
}

}  // namespace

File openForReading(const char* path) {
  FileDescriptor descriptor = openRegularFile(path, O_RDONLY);
  if (!descriptor.isOpen()) return {};
  if (const int refusal = refusalOf(descriptor.get()); refusal != 0) {
    descriptor.reset();
    errno = refusal;
    return {};
  }
  File file(fdopen(descriptor.get(), "r"));
  if (file) descriptor.release();
  return file;
}

bool LineReader::next() {
  iLength = 0;
  while (iLength < pcBytes.size()) {
    const int character = std::fgetc(file);
    if (character == EOF) break;
    pcBytes[iLength++] = static_cast<char>(character);
    if (character == '\n') break;
  }
  if (iLength == 0) return false;
  iBytes += iLength;
  bTooLong = iBytes > kMaxTextBytes || ++iLines > kMaxTextLines;
  if (bTooLong) errno = EFBIG;
  return !bTooLong;
}

std::string_view LineReader::text() const {
  return bytes().substr(0, bytes().find('\0'));
}
