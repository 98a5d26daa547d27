// Walks the header lines of a message (everything between its first line and its first empty line), and the
// values of a line.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string_view>

class HeaderLines {
 public:
  // From the line in which the position lies on.
  explicit HeaderLines(std::string_view message, std::size_t position = 0)
      : rest(message.substr(0, message.find("\r\n\r\n"))) {
    if (position > rest.size()) position = rest.size();
    rest.remove_prefix(position);
    skipLine();
  }

  // The next line without its end. False when there is none.
  bool next(std::string_view& line) {
    if (rest.empty()) return false;
    line = rest.substr(0, rest.find(kLineEnd));
    skipLine();
    return true;
  }

  // Takes the next value off what is left of a line; several stand between commas (RFC 3261 7.3.1), which are
  // part of the value within angle brackets or quotes. Blanks around it are left out.
  static std::string_view takeValue(std::string_view& line) {
    bool inBrackets = false;
    bool inQuotes = false;
    std::size_t end = 0;
    for (; end < line.size(); ++end) {
      const char character = line[end];
      if (character == '"') inQuotes = !inQuotes;
      if (inQuotes) continue;
      if (character == '<') inBrackets = true;
      if (character == '>') inBrackets = false;
      if (character == ',' && !inBrackets) break;
    }
    std::string_view value = line.substr(0, end);
    line.remove_prefix(std::min(end + 1, line.size()));
    value.remove_prefix(std::min(value.find_first_not_of(' '), value.size()));
    value.remove_suffix(value.size() - (value.find_last_not_of(' ') + 1));
    return value;
  }

 private:
  static constexpr std::string_view kLineEnd = "\r\n";

  void skipLine() {
    const std::size_t end = rest.find(kLineEnd);
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + kLineEnd.size());
  }

  std::string_view rest;
};
