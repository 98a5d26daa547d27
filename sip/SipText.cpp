// Reading a message as text: case-insensitive search, header values, compact header names, name patterns.
// Messages are looked at where they lie; nothing is copied or lower-cased, because a handler searches tens of
// times per message.
#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <limits>
#include <span>

#include "app/config/Log.h"
#include "sip/MySip.h"

namespace {

constexpr auto kNotFound = std::string_view::npos;
constexpr std::size_t kMaxSearchLength = 9999;
constexpr std::string_view kLineEnd = "\r\n";
constexpr int kMaxPort = 65535;

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

constexpr char upperCase(char character) {
  return character >= 'a' && character <= 'z' ? static_cast<char>(character - ('a' - 'A')) : character;
}

bool equalsFolded(const char* text, std::string_view other) {
  for (const char character : other) {
    if (lowerCase(*text++) != lowerCase(character)) return false;
  }
  return true;
}

// ---- Substring search ----
//
// memchr finds one character of the needle, the pivot, at many bytes per cycle; only around its hits is
// anything compared. So the pivot should be rare in SIP. A letter needs a second scan for its other case and
// is taken only where the needle has nothing else.

// Counted over an INVITE with SDP, commonest first; what is not listed is rarer than all of these.
constexpr std::string_view kCommonCharacters = "01 .\r\nae:p2t8Ir=i9o6ncPls/C4mNT7-EA,V@S";

constexpr auto kPivotMerit = [] {
  constexpr unsigned char kRare = 50;
  constexpr unsigned char kNoLetter = 100;
  std::array<unsigned char, 256> merit{};
  for (std::size_t i = 0; i < merit.size(); ++i) {
    const auto character = static_cast<unsigned char>(i);
    const unsigned char folded = kLowerCase[i];
    const bool isLetter = folded >= 'a' && folded <= 'z';
    const std::size_t place = kCommonCharacters.find(static_cast<char>(character));
    const std::size_t rarity = place == kNotFound ? kRare : place;
    merit[i] = static_cast<unsigned char>(rarity + (isLetter ? 0 : kNoLetter));
  }
  return merit;
}();

std::size_t choosePivot(std::string_view needle) {
  const auto merit = [](char a, char b) {
    return kPivotMerit[static_cast<unsigned char>(a)] < kPivotMerit[static_cast<unsigned char>(b)];
  };
  return static_cast<std::size_t>(std::max_element(needle.begin(), needle.end(), merit) - needle.begin());
}

// The places of one character in a text, in order.
class Places {
 public:
  Places(const char* from, const char* to, char wanted) : end(to), character(wanted) { moveTo(from); }
  const char* current() const { return at; }
  void advance() { moveTo(at + 1); }
  void moveTo(const char* from) {
    const auto* found = static_cast<const char*>(
        std::memchr(from, static_cast<unsigned char>(character), static_cast<std::size_t>(end - from)));
    at = found == nullptr ? end : found;
  }

 private:
  const char* end;
  const char* at = nullptr;
  char character;
};

// First match at or after `from`; npos if none. The needle is not empty.
std::size_t findFolded(std::string_view haystack, std::string_view needle, std::size_t from = 0) {
  if (from > haystack.size() || haystack.size() - from < needle.size()) return kNotFound;
  const std::size_t pivot = choosePivot(needle);
  // Where the pivot of a match that lies wholly in the haystack can stand.
  const char* const begin = haystack.data() + from + pivot;
  const char* const end = haystack.data() + (haystack.size() - needle.size()) + pivot + 1;

  const char lower = static_cast<char>(lowerCase(needle[pivot]));
  const char upper = upperCase(lower);
  Places lowers(begin, end, lower);
  Places uppers(upper == lower ? end : begin, end, upper);
  for (;;) {
    Places& next = uppers.current() < lowers.current() ? uppers : lowers;
    if (next.current() == end) return kNotFound;
    const char* const start = next.current() - pivot;
    if (equalsFolded(start, needle)) return static_cast<std::size_t>(start - haystack.data());
    next.advance();
  }
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
  if (!readDecimal(text, port) || port < 0 || port > kMaxPort) return false;
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
