// What of a SIP message nobody may read who looks at a trace: answers to a challenge, good for a replay and
// for guessing the password, passwords themselves, and the keys of a call's media.
#include <algorithm>
#include <cctype>

#include "tools/quorvelctl/Message.h"

namespace {

constexpr std::string_view kMask = "(masked)";

bool equalFolded(char a, char b) {
  return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
}

// Where a line ends that goes on at that place; a lone carriage return ends none.
std::size_t endOfLine(std::string_view text, std::size_t from) {
  const std::size_t end = std::min(text.find('\n', from), text.size());
  return end > from && text[end - 1] == '\r' ? end - 1 : end;
}

// Where a header's value ends: at a line end that no blank follows (RFC 3261, 7.3.1).
std::size_t endOfHeader(std::string_view text, std::size_t from) {
  std::size_t end = text.find('\n', from);
  while (end < text.size() && end + 1 < text.size() && (text[end + 1] == ' ' || text[end + 1] == '\t'))
    end = text.find('\n', end + 1);
  if (end == std::string_view::npos) return text.size();
  return end > from && text[end - 1] == '\r' ? end - 1 : end;
}

// Of a header that a URI carries (RFC 3261, 19.1.1).
std::size_t endOfParameter(std::string_view text, std::size_t from) {
  return std::min(text.find_first_of("&> \"", from), endOfLine(text, from));
}

struct sSecret {
  std::string_view mark;  // stands before it
  std::string_view sign;  // between the two, after blanks
  std::size_t (*pfEnd)(std::string_view text, std::size_t from);
};
constexpr sSecret kSecrets[] = {
    {"Authorization", ":", endOfHeader},    {"Authentication-Info", ":", endOfHeader},
    {"Authorization", "=", endOfParameter}, {"\na=crypto", ":", endOfLine},
    {"\na=key-mgmt", ":", endOfLine},       {"\nk", "=", endOfLine}};

void maskBehind(std::string& text, const sSecret& secret) {
  for (std::size_t at = 0; (at = findFolded(text, secret.mark, at)) != std::string::npos;) {
    at = std::min(text.find_first_not_of(" \t", at + secret.mark.size()), text.size());
    if (text.compare(at, 1, secret.sign) != 0) continue;
    const std::size_t value = std::min(text.find_first_not_of(" \t", at + 1), text.size());
    text.replace(value, secret.pfEnd(text, value) - value, kMask);
  }
}

// sip:user:password@host
void maskPasswords(std::string& text) {
  for (const std::string_view scheme : {"sip:", "sips:"})
    for (std::size_t at = 0; (at = findFolded(text, scheme, at)) != std::string::npos;) {
      at += scheme.size();
      const std::size_t end = text.find_first_of("@<>\" \t\n", at);
      const std::size_t colon = text.find(':', at);
      if (end != std::string::npos && text[end] == '@' && colon < end)
        text.replace(colon + 1, end - colon - 1, kMask);
    }
}

}  // namespace

std::size_t findFolded(std::string_view text, std::string_view what, std::size_t from) {
  const auto begin = text.begin() + static_cast<std::ptrdiff_t>(std::min(from, text.size()));
  const auto found = std::search(begin, text.end(), what.begin(), what.end(), equalFolded);
  return found == text.end() ? std::string_view::npos : static_cast<std::size_t>(found - text.begin());
}

std::string masked(std::string text) {
  text.insert(0, 1, '\n');  // its first line begins as the others do
  for (const sSecret& secret : kSecrets) maskBehind(text, secret);
  maskPasswords(text);
  text.erase(0, 1);
  return text;
}
