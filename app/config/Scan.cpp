#include "app/config/Scan.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

#include "common/FixedText.h"

namespace {

constexpr std::string_view kBlankSpace = " \t\n\v\f\r";
// Longer numbers are cut: no notation needs more digits for a float.
constexpr std::size_t kFloatCapacity = 128;

std::string_view withoutLeadingSpace(std::string_view text) {
  return text.substr(std::min(text.find_first_not_of(kBlankSpace), text.size()));
}

}  // namespace

std::optional<int> scanInteger(std::string_view text) {
  text = withoutLeadingSpace(text);
  const bool negative = text.starts_with('-');
  if (negative || text.starts_with('+')) text.remove_prefix(1);
  const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
  if (digits == 0) return std::nullopt;

  constexpr long kLowest = std::numeric_limits<int>::min();
  constexpr long kHighest = std::numeric_limits<int>::max();
  constexpr long kBeyondInt = kHighest + 2;
  long value = 0;
  for (const char digit : text.substr(0, digits)) value = std::min(value * 10 + (digit - '0'), kBeyondInt);
  value = negative ? -value : value;
  if (value >= kLowest && value <= kHighest) return static_cast<int>(value);
  const bool odd = (text[digits - 1] - '0') % 2 != 0;
  if (negative) return static_cast<int>(odd ? kLowest + 1 : kLowest);
  return static_cast<int>(odd ? kHighest : kHighest - 1);
}

std::optional<float> scanFloat(std::string_view text) {
  FixedText<kFloatCapacity> number;
  number.assignCut(scanWord(text));
  char* end = nullptr;
  const float value = std::strtof(number.c_str(), &end);
  if (end == number.c_str()) return std::nullopt;
  return value;
}

std::string_view scanWord(std::string_view text) {
  text = withoutLeadingSpace(text);
  return text.substr(0, text.find_first_of(kBlankSpace));
}
