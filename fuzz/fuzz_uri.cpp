// Any text through the message text utilities. The search is compared with a plain one; the others may fail,
// but keep to their bounds.
#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "app/config/Settings.h"
#include "fuzz/Require.h"
#include "sip/MySip.h"

namespace {

std::string lowerCase(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char character) { return static_cast<char>(std::tolower(character)); });
  return lower;
}

void checkSearch(std::string_view text) {
  static constexpr std::string_view kNeedles[] = {"sip:", "\r\nm=", "Call-ID:", "invite", "200 OK",
                                                  "tag=", "a",      "@",        "\r\n",   "c=IN IP4 "};
  for (const std::string_view needle : kNeedles)
    require(MySip::stristr(text, needle) == lowerCase(text).find(lowerCase(needle)));
  const std::string_view own = text.substr(text.size() / 2, 6);  // one that occurs
  if (!own.empty()) require(MySip::stristr(text, own) == lowerCase(text).find(lowerCase(own)));
}

void checkHeaders(std::string_view text) {
  for (const std::string_view name : {"Via:", "To:", "Call-ID:", "Record-Route:", ":"}) {
    const std::string_view value = MySip::extractToken(name, 100, text);
    require(value.size() < 100);
    require(value.empty() || (value.data() >= text.data() && value.end() <= text.end()));
  }
  FixedText<3000> message;
  message.assignCut(text);
  const std::string before(message.view());
  if (!MySip::translateCompactHeaders(message)) require(message == before);
  std::string_view tag;
  if (MySip::extractTag(text, tag)) require(!tag.empty() && tag.end() <= text.end());
  int number = 0;
  (void)MySip::readDecimal(text, number);
  require(MySip::bodyOf(text).size() <= text.size());
}

void checkUris(std::string_view text) {
  sSipUri uri;
  if (MySip::analyzeURIString(text, uri) == 0) require(uri.iPort >= 0 && uri.iPort <= 65535);
  FixedText<kSipNameCapacity> name;
  MySip::extractShortSipName(text, name);
  require(name.view().find('@') == std::string_view::npos);
  MySip::replaceProxyIPInSipName(uri.pcName);
  FixedText<200> farEnd;
  MySip::extractFarEndURI(text, farEnd);
  FixedText<367> callId;
  MySip::extractCallIDFromReferReplaces(text, callId);
  FixedText<300> escaped;
  MySip::prepareCallIDToUseInReferReplaces(text.substr(0, 99), escaped);
  require(escaped.size() >= std::min<std::size_t>(text.size(), 99));
  FixedText<1000> via;
  via.assignCut(text);
  const std::size_t before = via.size();
  MySip::removeRport(via);
  require(via.size() <= before);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  text = text.substr(0, text.find('\0')).substr(0, kMaxMessageLength);
  pcSipUAIP.assignCut("10.1.1.5");
  pcSipProxyIP.assignCut("100.100.100.100");
  checkSearch(text);
  checkHeaders(text);
  checkUris(text);
  return 0;
}
