// Walks the header lines of a message: everything between its first line and its first empty line.
#pragma once

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

 private:
  static constexpr std::string_view kLineEnd = "\r\n";

  void skipLine() {
    const std::size_t end = rest.find(kLineEnd);
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + kLineEnd.size());
  }

  std::string_view rest;
};
