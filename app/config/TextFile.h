// Reading of the text files that people write: the configuration file and the routing file.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

#include "common/Handle.h"

// Longest line in characters, its line feed included; a longer one is read as several lines.
inline constexpr std::size_t kMaxLineLength = 49'999;

// What a file may have in all. The reload datagram names any file, and the SIP thread reads it: 1 MiB takes
// it some 3 ms. The longest sensible configuration (1,000 phones with names and secrets) has 200 kB.
inline constexpr std::size_t kMaxTextBytes = 1024 * 1024;
inline constexpr std::size_t kMaxTextLines = 10'000;

// Opens an ordinary file for reading; anything else in its place does not open (openRegularFile says why).
// Neither do files that the kernel makes up while they are read, some of which never end (EINVAL), and larger
// ones than kMaxTextBytes (EFBIG).
File openForReading(const char* path);

// The lines of an open file, one after the other. A last line without a line feed is a line. Ends at the
// bounds above, also in a file that has grown since it was opened.
class LineReader {
 public:
  explicit LineReader(std::FILE* source) : file(source) {}

  // Reads the next line. False at the end of the file or when it cannot be read on.
  [[nodiscard]] bool next();
  // Did reading stop at an error or a bound instead of at the end? errno tells which.
  [[nodiscard]] bool failed() const { return bTooLong || std::ferror(file) != 0; }

  // The bytes of the line with its line end. Valid until the next call of next().
  [[nodiscard]] std::string_view bytes() const { return {pcBytes.data(), iLength}; }
  // The line as text, which ends before the first NUL byte.
  [[nodiscard]] std::string_view text() const;

 private:
  std::FILE* file;
  std::size_t iLength = 0;
  std::size_t iBytes = 0;  // of all lines so far
  std::size_t iLines = 0;
  bool bTooLong = false;
  std::array<char, kMaxLineLength> pcBytes;
};
