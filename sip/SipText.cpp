// Reading a message as text: case-insensitive search, header values, compact header names, name patterns.
// Messages are looked at where they lie; nothing is copied or lower-cased, because a handler searches tens of
// times per message.
#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <span>

#include "app/config/Log.h"
#include "common/Port.h"
#include "sip/HeaderLines.h"
#include "sip/MySip.h"

namespace {

constexpr auto kNotFound = std::string_view::npos;
constexpr std::size_t kMaxSearchLength = 9999;
constexpr std::string_view kLineEnd = "\r\n";

constexpr bool isBlank(char character) {
  return character == ' ' || character == '\t';
}
constexpr bool isLineBreak(char character) {
  return character == '\r' || character == '\n';
}

// ---- Letters without regard to case ----

constexpr bool isUpperCase(unsigned char character) {
  return character >= 'A' && character <= 'Z';
}

// ASCII, as tolower folds in the C locale: bytes above 127 stay what they are.
constexpr auto kLowerCase = [] {
  std::array<unsigned char, 256> table{};
  for (std::size_t i = 0; i < table.size(); ++i) {
    const auto character = static_cast<unsigned char>(i);
    table[i] = isUpperCase(character) ? static_cast<unsigned char>(character + ('a' - 'A')) : character;
  }
  return table;
}();

constexpr unsigned char lowerCase(char character) {
  return kLowerCase[static_cast<unsigned char>(character)];
}

bool equalsFolded(const char* text, std::string_view other) {
  for (const char character : other) {
    if (lowerCase(*text++) != lowerCase(character)) return false;
  }
  return true;
}

// ---- Substring search ----
//
// Sixteen places of the haystack are judged in one step: a match can begin only where the first character of
// the needle stands and, a needle's length later, its last. These two together are rare, so hardly anything
// else is compared. The vectors are the compilers' portable kind (GCC and clang).

constexpr std::size_t kBlockBytes = 16;
using Block [[gnu::vector_size(kBlockBytes)]] = unsigned char;
using BlockHalves [[gnu::vector_size(kBlockBytes)]] = std::uint64_t;

Block loadBlock(const char* from) {
  Block block;
  std::memcpy(&block, from, sizeof block);
  return block;
}

// One character in both its cases, for sixteen places at once. Setting bit 5 makes a letter lower-case; of
// other bytes it makes something that only the full comparison can tell from a letter.
class CharacterMask {
 public:
  explicit CharacterMask(char wanted) {
    const unsigned char lower = lowerCase(wanted);
    const unsigned char caseBit = lower >= 'a' && lower <= 'z' ? 0x20 : 0;
    fold = Block{} + caseBit;
    character = Block{} + lower;
  }
  // 0xFF in every place where the character stands.
  BlockHalves findIn(const char* from) const {
    return reinterpret_cast<BlockHalves>((loadBlock(from) | fold) == character);
  }

 private:
  Block fold;
  Block character;
};

// First place among the eight whose bytes in `candidates` are set at which the needle stands, or null.
const char* firstMatch(std::uint64_t candidates, const char* from, std::string_view needle) {
  constexpr std::uint64_t kPlace = 0xFF;
  while (candidates != 0) {
    const int bit = std::countr_zero(candidates);
    if (equalsFolded(from + bit / 8, needle)) return from + bit / 8;
    candidates &= ~(kPlace << bit);
  }
  return nullptr;
}

// First match at or after `from`; npos if none. The needle is not empty.
std::size_t findFolded(std::string_view haystack, std::string_view needle, std::size_t from = 0) {
  static_assert(std::endian::native == std::endian::little, "the first place is the lowest byte");
  if (from > haystack.size() || haystack.size() - from < needle.size()) return kNotFound;
  const std::size_t last = needle.size() - 1;
  const char* at = haystack.data() + from;
  const char* const end = haystack.data() + haystack.size() - last;  // no match begins here or later

  const CharacterMask firstCharacter(needle.front());
  const CharacterMask lastCharacter(needle.back());
  for (; end - at >= static_cast<std::ptrdiff_t>(kBlockBytes); at += kBlockBytes) {
    const BlockHalves candidates = firstCharacter.findIn(at) & lastCharacter.findIn(at + last);
    if ((candidates[0] | candidates[1]) == 0) continue;
    const char* found = firstMatch(candidates[0], at, needle);
    if (found == nullptr) found = firstMatch(candidates[1], at + kBlockBytes / 2, needle);
    if (found != nullptr) return static_cast<std::size_t>(found - haystack.data());
  }
  for (; at < end; ++at) {
    if (equalsFolded(at, needle)) return static_cast<std::size_t>(at - haystack.data());
  }
  return kNotFound;
}

// ---- Header values ----

// Where the value that starts at `start` ends: at its line's end, unless the name occurs again before the
// next line is over; then the value goes on with that occurrence. npos when a line end is missing.
std::size_t findValueEnd(std::string_view message, std::string_view name, std::size_t start) {
  for (std::size_t scan = start;;) {
    const std::size_t lineEnd = message.find(kLineEnd, scan);
    if (lineEnd == kNotFound) return kNotFound;
    const std::size_t followingEnd = message.find(kLineEnd, lineEnd + kLineEnd.size());
    const std::size_t again = findFolded(message.substr(0, followingEnd), name, scan);
    if (again == kNotFound) return lineEnd;
    scan = again + name.size();
  }
}

// ---- Compact header names ----

struct sCompactName {
  char cLetter;
  std::string_view fullName;
};

// RFC 3261 section 7.3.3 and the extensions that define further letters.
constexpr std::array<sCompactName, 15> kCompactNames{{
    {'a', "Accept-Contact: "},
    {'b', "Referred-By: "},
    {'c', "Content-Type: "},
    {'e', "Content-Encoding: "},
    {'f', "From: "},
    {'i', "Call-ID: "},
    {'k', "Supported: "},
    {'l', "Content-Length: "},
    {'m', "Contact: "},
    {'o', "Event: "},
    {'r', "Refer-To: "},
    {'s', "Subject: "},
    {'t', "To: "},
    {'u', "Allow-Events: "},
    {'v', "Via: "},
}};

constexpr std::size_t kCompactLength = 3;  // letter, colon, blank

// Full name for a line that begins with a compact one, or empty.
std::string_view fullNameFor(std::string_view line) {
  if (line.size() < kCompactLength || line[1] != ':' || line[2] != ' ') return {};
  for (const sCompactName& name : kCompactNames) {
    if (lowerCase(line[0]) == static_cast<unsigned char>(name.cLetter)) return name.fullName;
  }
  return {};
}

bool matchesAny(std::string_view name, std::span<const Expression> patterns) {
  return std::any_of(patterns.begin(), patterns.end(), [name](const Expression& pattern) {
    return MySip::sipNameMatchRegularExpression(name, pattern);
  });
}

std::span<const Expression> firstOf(const ExpressionList& list, int count) {
  return std::span(list).first(static_cast<std::size_t>(std::clamp(count, 0, kMaxExpressions)));
}

}  // namespace

std::size_t MySip::stristr(std::string_view haystack, std::string_view needle) {
  if (needle.empty()) return 0;
  if (haystack.size() > kMaxSearchLength || needle.size() > kMaxSearchLength) {
    Log::error("MySip::stristr", "strings to big %d %d\n", static_cast<int>(haystack.size()),
               static_cast<int>(needle.size()));
    return 0;
  }
  return findFolded(haystack, needle);
}

std::string_view MySip::extractToken(std::string_view name, std::size_t capacity, std::string_view message) {
  constexpr const char* kFunction = "MySip::extractToken";
  const std::size_t found = name.empty() ? kNotFound : stristr(message, name);
  if (found == kNotFound) {
    Log::error(kFunction, "unable to find %.*s in \n%.*s\n", static_cast<int>(name.size()), name.data(),
               static_cast<int>(message.size()), message.data());
    return {};
  }
  std::size_t start = std::min(found + name.size(), message.size());
  while (start < message.size() && message[start] == ' ') ++start;

  const std::size_t end = findValueEnd(message, name, start);
  if (end == kNotFound) {
    Log::error(kFunction, "unable to find end sequence CRLF\n");
    return {};
  }
  if (end - start >= capacity) {
    Log::error(kFunction, "%.*s is too long %d", static_cast<int>(name.size()), name.data(),
               static_cast<int>(end - start));
    return {};
  }
  return message.substr(start, end - start);
}

std::string_view MySip::extractHeader(std::string_view name, std::size_t capacity, std::string_view message) {
  const std::string_view value = extractToken(name, capacity, message);
  std::size_t end = value.find_first_of(kLineEnd);
  while (end != kNotFound && value.substr(end).starts_with(kLineEnd) &&
         isMethod(value.substr(end + kLineEnd.size()), name))
    end = value.find_first_of(kLineEnd, end + kLineEnd.size());
  return value.substr(0, end);
}

std::string_view MySip::callIdOf(std::string_view message) {
  const std::string_view value = extractHeader("Call-ID:", 100, message);
  return value.substr(0, value.find(kLineEnd));
}

void MySip::takeVia(std::string_view message, FixedText<1000>& out) {
  constexpr std::string_view kName = "Via:";
  const std::string_view first = extractHeader(kName, out.maxLength() + 1, message);
  out.assignCut(first);
  if (first.empty()) return;
  HeaderLines lines(message, static_cast<std::size_t>(first.data() + first.size() - message.data()));
  for (std::string_view line; lines.next(line);) {
    if (!isMethod(line, kName)) continue;
    if (out.append(kLineEnd) && out.append(line)) continue;
    Log::error("MySip::takeVia", "Via: is too long %d", static_cast<int>(out.size() + line.size()));
    out.clear();
    return;
  }
}

void MySip::unfoldHeaders(std::span<char> text) {
  const std::string_view view(text.data(), text.size());
  std::size_t line = 0;
  for (std::size_t end = view.find(kLineEnd); end != kNotFound; end = view.find(kLineEnd, line)) {
    std::ranges::replace_if(text.subspan(line, end - line), isLineBreak, ' ');
    line = end + kLineEnd.size();
    if (view.substr(line).starts_with(kLineEnd)) return;
    if (line == view.size() || !isBlank(view[line])) continue;
    text[end] = text[end + 1] = ' ';
    for (std::size_t at = line; at < view.size() && isBlank(view[at]); ++at) text[at] = ' ';
  }
  // A head that was cut off ends with a line without end.
  if (line > 0) std::ranges::replace_if(text.subspan(line), isLineBreak, ' ');
}

bool MySip::translateCompactHeaders(FixedText<3000>& message) {
  const std::string_view text = message.view();
  FixedText<3000> result;
  std::size_t copied = 0;  // the text before it is in the result
  for (std::size_t line = 0;;) {
    const std::size_t lineEnd = text.find(kLineEnd, line);
    if (lineEnd == kNotFound) break;
    const std::string_view fullName = fullNameFor(text.substr(line, lineEnd - line));
    if (!fullName.empty()) {
      if (!result.append(text.substr(copied, line - copied)) || !result.append(fullName)) return false;
      copied = line + kCompactLength;
    }
    line = lineEnd + kLineEnd.size();
  }
  if (!result.append(text.substr(copied))) return false;
  message = result;
  return true;
}

bool MySip::sipNameMatchRegularExpression(std::string_view name, std::string_view pattern) {
  return std::equal(name.begin(), name.end(), pattern.begin(), pattern.end(),
                    [](char character, char wanted) { return wanted == '?' || wanted == character; });
}

bool MySip::sipNameInDOSList(std::string_view name) {
  return matchesAny(name, firstOf(pcDOSExpressions, iNumberOfDOSExpressions));
}

bool MySip::sipNameInAOSList(std::string_view name) {
  return matchesAny(name, firstOf(pcAOSExpressions, iNumberOfAOSExpressions));
}

int MySip::getSipRoutingIndex(std::string_view name) {
  for (int row = 0; row < std::min(iNumSipRoutingRecords, kMaxSipRoutingRows); ++row) {
    const sSipRoutingRow& candidate = psSipRoutingRows[static_cast<std::size_t>(row)];
    if (matchesAny(name, firstOf(candidate.pcExpressions, candidate.iNumExpressions))) return row;
  }
  return -1;
}

bool MySip::readDecimal(std::string_view text, int& out) {
  text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
  if (text.starts_with('+')) {
    text.remove_prefix(1);
    if (text.starts_with('-')) return false;  // from_chars would take the second sign
  }
  return std::from_chars(text.data(), text.data() + text.size(), out).ec == std::errc();
}

bool MySip::readPort(std::string_view text, int& out) {
  int port = 0;
  if (!readDecimal(text, port) || port < 0 || port > kHighestPort) return false;
  out = port;
  return true;
}

bool MySip::extractTag(std::string_view headerValue, std::string_view& tag) {
  constexpr std::string_view kParameter = ";tag=";
  constexpr std::string_view kBare = "tag=";
  // A display name may hold the bare word; the parameter itself follows a semicolon, rarely with blanks.
  std::size_t start = stristr(headerValue, kParameter);
  if (start != kNotFound) {
    start += kParameter.size();
  } else {
    start = stristr(headerValue, kBare);
    if (start == kNotFound) return false;
    start += kBare.size();
  }
  const std::string_view rest = headerValue.substr(std::min(start, headerValue.size()));
  tag = rest.substr(0, rest.find_first_of("; >\t\r\n"));
  return !tag.empty();
}

std::string_view MySip::bodyOf(std::string_view message) {
  constexpr std::string_view kEmptyLine = "\r\n\r\n";
  const std::size_t headEnd = message.find(kEmptyLine);
  return headEnd == kNotFound ? std::string_view() : message.substr(headEnd + kEmptyLine.size());
}
