#include "common/Handle.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <limits>
#include <string_view>
#include <sys/resource.h>
#include <sys/stat.h>

namespace {

constexpr int kNeverWaiting = O_NONBLOCK | O_CLOEXEC | O_NOCTTY;

int flagsOf(std::string_view mode) {
  const bool both = mode.find('+') != std::string_view::npos;
  switch (mode.front()) {
    case 'w':
      return (both ? O_RDWR : O_WRONLY) | O_CREAT |
             (mode.find('x') == std::string_view::npos ? O_TRUNC : O_EXCL);
    case 'a':
      return (both ? O_RDWR : O_WRONLY) | O_CREAT | O_APPEND;
    default:
      return both ? O_RDWR : O_RDONLY;
  }
}

}  // namespace

File openFile(const char* path, const char* mode) {
  constexpr mode_t kPermissions = 0666;  // less the process's umask
  FileDescriptor descriptor(open(path, flagsOf(mode) | kNeverWaiting, kPermissions));
  if (!descriptor.isOpen()) return {};
  File file(fdopen(descriptor.get(), mode));
  if (file) descriptor.release();
  return file;
}

FileDescriptor openRegularFile(const char* path, int flags, mode_t permissions) {
  FileDescriptor file(open(path, flags | kNeverWaiting, permissions));
  struct stat status {};
  if (!file.isOpen() || (fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode))) return file;
  errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
  const int reason = errno;
  file.reset();
  errno = reason;
  return file;
}

std::int64_t raiseDescriptorLimit() {
  constexpr rlim_t kMost = std::numeric_limits<std::int64_t>::max();
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return static_cast<std::int64_t>(kMost);
  const rlimit raised{limit.rlim_max, limit.rlim_max};
  if (limit.rlim_cur < limit.rlim_max && setrlimit(RLIMIT_NOFILE, &raised) == 0) limit = raised;
  return static_cast<std::int64_t>(std::min(limit.rlim_cur, kMost));
}
