#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "app/config/Guarded.h"
#include "app/config/MyConfiguration.h"
#include "app/config/Scan.h"
#include "app/config/TextFile.h"

namespace {

constexpr std::size_t kPathCapacity = 4096;
constexpr int kFailure = 2;

// Does the line, of which the characters in `ignored` are skipped at its start, assign this key?
bool assigns(std::string_view line, std::string_view key, std::string_view ignored) {
  const std::size_t start = line.find_first_not_of(ignored);
  if (start == std::string_view::npos) return false;
  line.remove_prefix(start);
  const std::size_t equals = line.find('=');
  return !line.starts_with(';') && equals != std::string_view::npos &&
         scanWord(line.substr(0, equals)) == key;
}

// How one key is changed in a file.
struct sKeyChange {
  const char* key;
  const char* value;           // null: the line becomes a comment
  const char* skippedAtStart;  // what may stand before the key in its line
};

void writeAssignment(std::FILE* out, const sKeyChange& change) {
  std::fprintf(out, "%s=%s\r\n", change.key, change.value);
}

// Copies the file and changes the first line of the key, or appends one when there is none. False when not
// everything could be read and written.
bool copyWithChange(std::FILE* in, std::FILE* out, const sKeyChange& change) {
  bool changed = false;
  bool lineEnded = true;
  LineReader lines(in);
  while (lines.next()) {
    const std::string_view bytes = lines.bytes();
    const bool replace = !changed && assigns(lines.text(), change.key, change.skippedAtStart);
    if (replace && change.value != nullptr) {
      writeAssignment(out, change);
    } else {
      if (replace) std::fputc(';', out);
      std::fwrite(bytes.data(), 1, bytes.size(), out);
    }
    changed = changed || replace;
    lineEnded = bytes.ends_with('\n');
  }
  if (!changed && change.value != nullptr) {
    if (!lineEnded) std::fputs("\r\n", out);
    writeAssignment(out, change);
  }
  return !lines.failed() && std::fflush(out) == 0 && std::ferror(out) == 0;
}

// A new file with the owner and the permissions of the old one, which holds passwords: nobody else may read
// it at any moment, and a service that reads the old one must be able to read the new one. What is left in
// its place, of an attempt that was interrupted, goes.
File createLike(std::FILE* original, const char* path) {
  struct stat status {};
  if (fstat(fileno(original), &status) != 0) return {};
  unlink(path);
  FileDescriptor descriptor(open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
  if (!descriptor.isOpen() || fchown(descriptor.get(), status.st_uid, status.st_gid) != 0 ||
      fchmod(descriptor.get(), status.st_mode & 07777) != 0) {
    if (descriptor.isOpen()) unlink(path);
    return {};
  }
  File file(fdopen(descriptor.get(), "w"));
  if (file) descriptor.release();
  return file;
}

char* readValue(const char* path, const char* key, char* out) {
  out[0] = '\0';
  const File file = openForReading(path);
  if (!file) {
    std::fprintf(
        stderr, "Can not read conf file %s. Please verify KESTROVA_BIN is pointing to the right directory.\n",
        path);
    std::exit(1);
  }
  LineReader lines(file.get());
  while (lines.next()) {
    const std::string_view line = lines.text();
    if (!assigns(line, key, " ")) continue;
    const std::string_view value = scanWord(line.substr(line.find('=') + 1));
    if (value.empty()) continue;
    std::memcpy(out, value.data(), value.size());
    out[value.size()] = '\0';
    return out;
  }
  return nullptr;
}

// Replaces the file in one step, so that nobody ever finds none.
bool replaceFile(const char* temporary, const char* path) {
  if (std::rename(temporary, path) == 0) return true;
  std::fprintf(stderr, "Unable to rename \"%s\" to \"%s\"\n", temporary, path);
  unlink(temporary);
  return false;
}

int saveValue(const char* path, const char* key, const char* value) {
  static std::array<char, kMaxLineLength + 1> current;  // main thread only, and large for a stack
  const bool given = readValue(path, key, current.data()) != nullptr;
  if (given ? value != nullptr && std::strcmp(value, current.data()) == 0 : value == nullptr) return 0;

  FixedText<kPathCapacity> temporary;
  const File in = openForReading(path);
  if (!in || !temporary.format("%s.tmp", path)) return kFailure;
  File out = createLike(in.get(), temporary.c_str());
  if (!out) return kFailure;
  if (!copyWithChange(in.get(), out.get(), {key, value, given ? " " : " ;"})) {
    unlink(temporary.c_str());
    return kFailure;
  }
  out.reset();
  return replaceFile(temporary.c_str(), path) ? 0 : kFailure;
}

}  // namespace

char* MyConfiguration::ReadConfVal(const char* path, const char* key, char* out) {
  return guarded<char*>("MyConfiguration::ReadConfVal", nullptr, [&] { return readValue(path, key, out); });
}

int MyConfiguration::saveParamValue(const char* path, const char* key, const char* value) {
  return guarded("MyConfiguration::saveParamValue", kFailure, [&] { return saveValue(path, key, value); });
}
