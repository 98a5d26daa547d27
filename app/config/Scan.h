// Taking numbers and words from the start of a text. Blank space here is what the C library calls it in its
// own locale: blank, tab, line feed, vertical tab, form feed and carriage return.
#pragma once

#include <optional>
#include <string_view>

// The leading decimal integer, with an optional sign and after any blank space; what follows it is ignored. A
// number beyond the range of int counts as the nearest int that is even or odd as it is, so that it fails the
// check it should: that of the range.
[[nodiscard]] std::optional<int> scanInteger(std::string_view text);

// The leading floating-point number, in any notation that strtof knows.
[[nodiscard]] std::optional<float> scanFloat(std::string_view text);

// The first run of characters that are not blank space; empty when there is none.
[[nodiscard]] std::string_view scanWord(std::string_view text);
