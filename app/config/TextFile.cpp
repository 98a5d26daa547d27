#include "app/config/TextFile.h"

#include <fcntl.h>

File openForReading(const char* path) {
  FileDescriptor descriptor = openRegularFile(path, O_RDONLY);
  if (!descriptor.isOpen()) return {};
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
  return iLength > 0;
}

std::string_view LineReader::text() const {
  return bytes().substr(0, bytes().find('\0'));
}
