// Owners of file descriptors and stdio files: they close what they hold, move, and do not copy.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <sys/types.h>
#include <unistd.h>
#include <utility>

class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int descriptor) : iDescriptor(descriptor) {}
  FileDescriptor(FileDescriptor&& other) noexcept : iDescriptor(other.release()) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() { reset(); }

  [[nodiscard]] int get() const { return iDescriptor; }
  [[nodiscard]] bool isOpen() const { return iDescriptor >= 0; }
  int release() { return std::exchange(iDescriptor, -1); }
  void reset(int descriptor = -1) {
    if (iDescriptor >= 0) close(iDescriptor);
    iDescriptor = descriptor;
  }

 private:
  int iDescriptor = -1;
};

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

// Empty when the file could not be opened. Close errors matter to nobody who uses it: whoever writes data
// that must arrive flushes and checks before letting go.
using File = std::unique_ptr<std::FILE, FileCloser>;

// fopen that never waits and is not inherited by other programs: a FIFO in place of the file does not open
// for writing while nobody reads it, and reads as empty while nobody writes it. mode: 'r', 'w' or 'a', with
// '+' where wanted and with 'x' for a file that must not exist yet; 'b' and 't' make no difference.
[[nodiscard]] File openFile(const char* path, const char* mode);
// The same for a file that must be an ordinary one, which is what can be read to its end: errno is EISDIR for
// a directory, EINVAL for a FIFO, a device or a socket. Safe in signal handlers.
[[nodiscard]] FileDescriptor openRegularFile(const char* path, int flags, mode_t permissions = 0666);

// Raises the process's soft limit of descriptors to the hard one. How many it may have then.
[[nodiscard]] std::int64_t raiseDescriptorLimit();
