#include "app/config/TextFile.h"

#include <cerrno>
#include <sys/stat.h>

File openForReading(const char* path) {
  File file = openFile(path, "re");
  struct stat status {};
  if (file && fstat(fileno(file.get()), &status) == 0 && S_ISDIR(status.st_mode)) {
    file.reset();
    errno = EISDIR;
  }
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
