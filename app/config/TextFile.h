// Reading of the text files that people write: the configuration file and the routing file.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

#include "common/Handle.h"

// Longest line in characters, its line feed included; a longer one is read as several lines.
inline constexpr std::size_t kMaxLineLength = 49'999;

// Opens an ordinary file for reading; anything else in its place does not open (openRegularFile says why).
File openForReading(const char* path);

// The lines of an open file, one after the other. A last line without a line feed is a line.
class LineReader {
 public:
  explicit LineReader(std::FILE* source) : file(source) {}

  // Reads the next line. False at the end of the file or when it cannot be read on.
  [[nodiscard]] bool next();
  // Did reading stop at an error instead of at the end? errno tells which.
  [[nodiscard]] bool failed() const { return std::ferror(file) != 0; }

  // The bytes of the line with its line end. Valid until the next call of next().
  [[nodiscard]] std::string_view bytes() const { return {pcBytes.data(), iLength}; }
  // The line as text, which ends before the first NUL byte.
  [[nodiscard]] std::string_view text() const;

 private:
  std::FILE* file;
  std::size_t iLength = 0;
  std::array<char, kMaxLineLength> pcBytes;
};
