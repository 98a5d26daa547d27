// Who calls whom and what is processed: the From and To headers of a new INVITE and the call command that
// they select.
#include "app/config/Log.h"
#include "sip/MySip.h"

namespace {

constexpr const char* kFromFunction = "MySip::analyzeFromStringAndCommandInInviteMessage";
constexpr const char* kToFunction = "MySip::analyzeToStringInInviteMessage";
constexpr const char* kFindFunction = "MySip::findMatchingCommand";
constexpr const char* kNoSipInTo = "unable to find sip: in To string:";
constexpr std::size_t kMaxDisplayName = 99;

void logWithText(const char* function, const char* what, std::string_view text) {
  Log::error(function, "%s %.*s\n", what, static_cast<int>(text.size()), text.data());
}

std::string_view withoutTrailingBlanks(std::string_view text) {
  while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
  return text;
}

// The quote that ends a quoted string; one after a backslash belongs to the text (RFC 3261, 25.1).
std::size_t closingQuote(std::string_view text) {
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] == '\\') {
      ++at;
    } else if (text[at] == '"') {
      return at;
    }
  }
  return std::string_view::npos;
}

// The part of a From or To value that holds the display name: what follows a double quote, or everything
// before '<', or before "sip:" where there is no '<'. It does not go beyond the value's first line.
struct sDisplayPart {
  std::string_view text;  // from the name's first character to the end of the line
  bool bQuoted = false;

  explicit sDisplayPart(std::string_view value) : text(value.substr(0, value.find_first_of("\r\n"))) {
    const std::size_t quote = text.substr(0, text.find('<')).find('"');
    if (quote == std::string_view::npos) return;
    bQuoted = true;
    text.remove_prefix(quote + 1);
  }

  // The text up to the end of the display part. False: the closing quote is missing.
  bool bounded(std::string_view& out) const {
    if (bQuoted) {
      const std::size_t quote = closingQuote(text);
      out = text.substr(0, quote);
      return quote != std::string_view::npos;
    }
    std::size_t end = text.find('<');
    if (end == std::string_view::npos) end = MySip::stristr(text, "sip:");
    out = withoutTrailingBlanks(text.substr(0, end));
    return true;
  }
};

// Reads and checks a display name. False, and logged, on failure.
bool readDisplayName(const sDisplayPart& part, std::string_view value, const char* function,
                     std::string_view& name) {
  if (!part.bounded(name)) {
    logWithText(function, "unable to find display name in", value);
    return false;
  }
  if (name.size() > kMaxDisplayName) {
    Log::error(function, "display name too long %d\n", static_cast<int>(name.size()));
    return false;
  }
  return true;
}

}  // namespace

int MySip::analyzeToStringInInviteMessage(int orig, std::string_view to) {
  sPhone& leg = phone(orig);
  if (!contains(to, "sip:")) {
    logWithText(kToFunction, "unable to find sip: in", to);
    return 1;
  }
  std::string_view name;
  if (!readDisplayName(sDisplayPart(to), to, kToFunction, name)) return 1;
  sSipUri uri;
  if (analyzeHeaderUri(to, uri, kToFunction) != 0) return 1;
  leg.pcDisplayName.assignCut(name);
  partnerOf(orig).pcRemoteDisplayName.assignCut(name);
  leg.pcSipName = uri.pcName;
  return 0;
}

int MySip::analyzeFromStringAndCommandInInviteMessage(int orig, std::string_view from, std::string_view to) {
  sPhone& leg = phone(orig);
  sPhone& pair = partnerOf(orig);
  if (!contains(from, "sip:")) {
    logWithText(kFromFunction, "unable to find sip: in", from);
    return 1;
  }
  sDisplayPart part(from);
  bool hasDestination = false;
  if (takeExplicitCommand(orig, from, part.text, part.bQuoted, hasDestination) != 0) return 1;
  std::string_view name;
  if (!readDisplayName(part, from, kFromFunction, name)) return 1;
  sSipUri caller;
  if (analyzeHeaderUri(from, caller, kFromFunction) != 0) return 1;

  leg.pcRemoteSipName = caller.pcName;
  pair.pcDisplayName.assignCut(name.empty() ? caller.pcName.view() : name);
  leg.pcRemoteDisplayName = pair.pcDisplayName;
  if (iPairPhoneShouldImpersonateTheOriginator == 1) {
    pair.pcSipName.assignCut(caller.pcName.view().substr(0, kMaxDisplayName));
    if (iSipProxyArchitecture != 0) replaceProxyIPInSipName(pair.pcSipName);
  }
  if (takeCallerTag(leg, from) != 0) return 1;
  if (hasDestination || findMatchingCommand(orig, leg.iPairIndex, to) == 0) return 0;
  Log::error(kFromFunction, "unable to find command\n");
  return 1;
}

// The display name may carry a command: destination, separator, type, separator, name. `display` (from its
// first character to the end of its line) is moved on to the name.
int MySip::takeExplicitCommand(int orig, std::string_view from, std::string_view& display, bool quoted,
                               bool& found) {
  const std::string_view separator = pcSeparator;
  std::size_t end = display.find(quoted ? '"' : '<');
  if (!quoted && end == std::string_view::npos) end = stristr(display, "sip:");
  const std::string_view bounded = display.substr(0, end);
  const std::size_t first = separator.empty() ? std::string_view::npos : bounded.find(separator);
  found = first != std::string_view::npos;
  if (!found) return 0;

  sPhone& pair = partnerOf(orig);
  if (!pair.pcRemoteSipName.assign(bounded.substr(0, first))) {
    Log::error(kFromFunction, "destination too long %d\n", static_cast<int>(first));
    return 1;
  }
  const std::size_t typeStart = first + separator.size();
  const std::size_t second = bounded.find(separator, typeStart);
  if (second == std::string_view::npos) {
    logWithText(kFromFunction, "unable to find cleaning type in", from);
    return 1;
  }
  int type = 0;
  if (!readDecimal(bounded.substr(typeStart, second - typeStart), type)) {
    logWithText(kFromFunction, "unable to read cleaning type from", from);
    return 1;
  }
  if (type < 0 || type > 3) {
    Log::error(kFromFunction, "invalid cleaning type (%d) read from %.*s\n", type,
               static_cast<int>(from.size()), from.data());
    return 1;
  }
  phone(orig).iCleaningType = pair.iCleaningType = type;
  display.remove_prefix(second + separator.size());
  return 0;
}

int MySip::takeCallerTag(sPhone& leg, std::string_view from) {
  // Behind the name and the URI, where there are angle brackets: a name may contain anything.
  const std::size_t bracket = from.rfind('>');
  std::string_view tag;
  if (!extractTag(from.substr(bracket == std::string_view::npos ? 0 : bracket), tag)) {
    logWithText(kFromFunction, "unable to find tag in", from);
    return 1;
  }
  // Stored with its prefix in our own spelling, whatever the caller's letters.
  leg.pcRemoteTag.assignCut(";tag=");
  if (leg.pcRemoteTag.append(tag)) return 0;
  Log::error(kFromFunction, "tag is too long\n");
  return 1;
}

int MySip::chooseCommand(std::string_view caller, std::string_view to, sCommandChoice& out) {
  for (int rule = 0; rule < iNumCmdBasedOnCallerID; ++rule) {
    const auto i = static_cast<std::size_t>(rule);
    if (!sipNameMatchRegularExpression(caller, ppcCmdBasedOnCallerIDFilter[i])) continue;
    out = {sCommandChoice::Source::eCallerRule, rule, ppcCmdBasedOnCallerIDDestination[i],
           piCmdBasedOnCallerIDFilteringType[i]};
    return 0;
  }
  if (iNumCmdBasedOnDestination > 0) {
    sSipUri dialled;
    if (analyzeHeaderUri(to, dialled, kFindFunction, HostLookup::eNo, kNoSipInTo) != 0) return 1;
    for (int rule = 0; rule < iNumCmdBasedOnDestination; ++rule) {
      const auto i = static_cast<std::size_t>(rule);
      if (!sipNameMatchRegularExpression(dialled.pcName, ppcCmdBasedOnDestinationFilter[i])) continue;
      out = {sCommandChoice::Source::eDestinationRule, rule, ppcCmdBasedOnDestinationDestination[i],
             piCmdBasedOnDestinationFilteringType[i]};
      return 0;
    }
  }
  if (pcDefaultCmd.empty()) {
    Log::error(kFindFunction, "there is no default commnad\n");
    return 1;
  }
  out = {sCommandChoice::Source::eDefault, 0, pcDefaultDestination, iDefaultFilteringType};
  return 0;
}

int MySip::findMatchingCommand(int orig, int pair, std::string_view to) {
  sCommandChoice choice;
  if (chooseCommand(phone(orig).pcRemoteSipName, to, choice) != 0) return 1;
  if (insertMatchingCmdData(orig, pair, to, choice.destination, choice.iType) == 0) return 0;
  if (choice.source == sCommandChoice::Source::eDefault)
    Log::error(kFindFunction, "unable to insert default cmd\n");
  else
    Log::error(kFindFunction, "unable to insert cmd %d\n", choice.iRule);
  return 1;
}

int MySip::insertMatchingCmdData(int orig, int pair, std::string_view to, std::string_view destination,
                                 int type) {
  phone(orig).iCleaningType = phone(pair).iCleaningType = type;
  return nameToCall(destination, to, phone(pair).pcRemoteSipName);
}

int MySip::nameToCall(std::string_view destination, std::string_view to, FixedText<kSipNameCapacity>& out) {
  if (destination != "*") {
    out.assignCut(destination);
    return 0;
  }
  sSipUri dialled;
  if (analyzeHeaderUri(to, dialled, "MySip::insertMatchingCmdData", HostLookup::eNo, kNoSipInTo) != 0)
    return 1;
  out = dialled.pcName;
  if (iSipProxyArchitecture != 0) replaceProxyIPInSipName(out);
  return 0;
}
