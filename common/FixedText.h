// Text of a fixed capacity that lives inside a record: N bytes, always NUL-terminated, trivially copyable, so
// that records stay block-copyable and file images stay what they are. Filling checks the length; nothing is
// ever cut or overrun unless the caller asks for a cut by name.
#pragma once

#include <algorithm>
#include <array>
#include <compare>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string_view>

template <std::size_t N>
class FixedText {
  static_assert(N >= 1);

 public:
  FixedText() = default;

  // Longest text that fits, in characters (the terminator takes the last byte).
  static constexpr std::size_t maxLength() { return N - 1; }

  // Replaces the text. False, and the old text stays, when it does not fit.
  [[nodiscard]] bool assign(std::string_view text) {
    if (text.size() > maxLength()) return false;
    store(0, text);
    return true;
  }

  // Replaces the text with as much of the given one as fits.
  void assignCut(std::string_view text) { store(0, text.substr(0, maxLength())); }

  // Appends. False, and the text stays, when the sum does not fit.
  [[nodiscard]] bool append(std::string_view text) {
    const std::size_t length = size();
    if (text.size() > maxLength() - length) return false;
    store(length, text);
    return true;
  }

  // printf-style replacement. False, and the text becomes empty, when the result does not fit.
  [[nodiscard, gnu::format(printf, 2, 3)]] bool format(const char* pattern, ...) {
    va_list arguments;
    va_start(arguments, pattern);
    const bool fits = formatAt(0, pattern, arguments);
    va_end(arguments);
    return fits;
  }

  // printf-style append. False, and the text stays as it was, when the result does not fit.
  [[nodiscard, gnu::format(printf, 2, 3)]] bool appendFormat(const char* pattern, ...) {
    va_list arguments;
    va_start(arguments, pattern);
    const bool fits = formatAt(size(), pattern, arguments);
    va_end(arguments);
    return fits;
  }

  void clear() { pcText[0] = '\0'; }

  [[nodiscard]] bool empty() const { return pcText[0] == '\0'; }
  [[nodiscard]] std::size_t size() const { return strnlen(pcText.data(), maxLength()); }
  [[nodiscard]] const char* c_str() const { return pcText.data(); }
  [[nodiscard]] std::string_view view() const { return {pcText.data(), size()}; }
  operator std::string_view() const { return view(); }  // NOLINT(google-explicit-constructor)

  // The raw bytes, for file images and for callers that fill the text through a system interface. Whoever
  // writes through it keeps the terminator.
  [[nodiscard]] char* data() { return pcText.data(); }

  friend bool operator==(const FixedText& left, std::string_view right) { return left.view() == right; }
  friend bool operator==(const FixedText& left, const FixedText& right) {
    return left.view() == right.view();
  }

 private:
  void store(std::size_t position, std::string_view text) {
    if (!text.empty()) std::memmove(pcText.data() + position, text.data(), text.size());
    pcText[position + text.size()] = '\0';
  }

  [[gnu::format(printf, 3, 0)]] bool formatAt(std::size_t position, const char* pattern, va_list arguments) {
    const int length = std::vsnprintf(pcText.data() + position, N - position, pattern, arguments);
    if (length >= 0 && static_cast<std::size_t>(length) < N - position) return true;
    pcText[position] = '\0';
    return false;
  }

  std::array<char, N> pcText{};
};

static_assert(sizeof(FixedText<17>) == 17,
              "a FixedText is exactly its bytes: records and file images rely on it");
