// SIP URIs and the headers that carry them: name, port, address, parameters; Via, Replaces and names
// rewritten.
//
//     sip:1234;phone-context=x@10.0.0.9:5080;transport=udp>    ends at '>' or with the text
//         name                the rest  port
#include <algorithm>
#include <arpa/inet.h>
#include <cstring>

#include "app/config/Log.h"
#include "sip/HostNames.h"
#include "sip/MySip.h"

namespace {

constexpr auto kNotFound = std::string_view::npos;
constexpr std::string_view kScheme = "sip:";
constexpr const char* kAnalyze = "MySip::analyzeURIString";
HostNames hostNames;

// The text after the first occurrence of `start`, up to the first of the `ends` characters or the end. False
// if there is no `start`.
bool valueAfter(std::string_view text, std::string_view start, std::string_view ends,
                std::string_view& value) {
  const std::size_t found = MySip::stristr(text, start);
  if (found == kNotFound) return false;
  value = text.substr(found + start.size());
  value = value.substr(0, value.find_first_of(ends));
  return true;
}

// What stands between "sip:" and the URI's end.
std::string_view uriWithoutScheme(std::string_view text) {
  text.remove_prefix(std::min(kScheme.size(), text.size()));
  const std::size_t bracket = text.find('>');
  if (bracket != kNotFound) return text.substr(0, bracket);
  // A header value without brackets may come with its line end.
  const std::size_t last = text.find_last_not_of(" \r\n");
  return text.substr(0, last == kNotFound ? 0 : last + 1);
}

// Passed on, the rest of such a text would be header lines of its own.
bool hasLineBreak(std::string_view uri) {
  return uri.find_first_of("\r\n") != kNotFound;
}

bool readUriPort(std::string_view text, int& out) {
  if (MySip::readPort(text, out)) return true;
  Log::error(kAnalyze, "unable to read port from %.*s\n", static_cast<int>(text.size()), text.data());
  return false;
}

bool readNameAndPort(std::string_view uri, sSipUri& out) {
  const std::string_view core = uri.substr(0, uri.find(';'));
  const std::size_t colon = core.find(':');
  if (colon != kNotFound && !readUriPort(core.substr(colon + 1), out.iPort)) return false;
  const std::string_view name = core.substr(0, colon);
  if (out.pcName.assign(name)) return true;
  Log::error(kAnalyze, "sip name too long %d\n", static_cast<int>(name.size()));
  return false;
}

void readTransport(std::string_view uri, sSipUri& out) {
  std::string_view transport;
  if (!valueAfter(uri, "transport=", "", transport)) return;
  out.bUdp = transport.starts_with("udp") || transport.starts_with("UDP");
}

// The host as address: dotted as it stands, a name only where the caller is going to use the address.
void resolveHost(std::string_view host, HostLookup lookup, sSipUri& out) {
  FixedText<16> dotted;
  in_addr binary{};
  if (dotted.assign(host) && inet_pton(AF_INET, dotted.c_str(), &binary) == 1) {
    out.bHasAddress = true;
  } else if (lookup == HostLookup::eYes) {
    out.bHasAddress = hostNames.find(host, dotted);
  }
  if (out.bHasAddress) out.pcIP = dotted;
}

bool readAddress(std::string_view uri, HostLookup lookup, sSipUri& out) {
  std::string_view address;
  if (!valueAfter(uri, "maddr=", ";", address)) {
    const std::string_view name = out.pcName;
    resolveHost(name.substr(name.find('@') + 1), lookup, out);
    return true;
  }
  if (address.size() > out.pcIP.maxLength()) {
    Log::error(kAnalyze, "IP too long %d\n", static_cast<int>(address.size()));
    return false;
  }
  resolveHost(address, lookup, out);
  return true;
}

// A local number names its host, and with it the port, in its phone-context (RFC 3966 section 5.1.5).
bool readPhoneContext(std::string_view uri, sSipUri& out) {
  std::string_view context;
  if (!valueAfter(uri, "phone-context=", ";", context)) return true;
  const std::size_t colon = context.find(':');
  if (colon != kNotFound && !readUriPort(context.substr(colon + 1), out.iPort)) return false;
  context = context.substr(0, colon);
  const std::size_t at = context.find('@');
  if (at == kNotFound || out.pcName.view().find('@') != kNotFound) return true;
  if (out.pcName.append(context.substr(at))) return true;
  Log::error(kAnalyze, "sip name too long\n");
  return false;
}

// Copies with every `what` replaced. False when the result does not fit; `out` is then empty.
template <std::size_t N>
bool copyReplacing(std::string_view text, std::string_view what, std::string_view with, FixedText<N>& out) {
  out.clear();
  for (std::size_t found = text.find(what); found != kNotFound; found = text.find(what)) {
    if (!out.append(text.substr(0, found)) || !out.append(with)) {
      out.clear();
      return false;
    }
    text.remove_prefix(found + what.size());
  }
  if (out.append(text)) return true;
  out.clear();
  return false;
}

}  // namespace

int MySip::analyzeURIString(std::string_view text, sSipUri& out, HostLookup lookup) {
  out = sSipUri{};
  out.pcIP = pcSipProxyIP;
  const std::string_view uri = uriWithoutScheme(text);
  if (hasLineBreak(uri)) return 1;
  if (!out.pcFullUri.assign(uri)) {
    Log::warning(kAnalyze, "URI to big in %.*s\n", static_cast<int>(text.size()), text.data());
    out.pcFullUri.assignCut(uri);
  }
  readTransport(uri, out);
  if (readNameAndPort(uri, out) && readAddress(uri, lookup, out) && readPhoneContext(uri, out)) return 0;
  out.pcName.clear();
  return 1;
}

int MySip::analyzeHeaderUri(std::string_view value, sSipUri& out, const char* function, HostLookup lookup,
                            const char* missing) {
  const auto fail = [function](const char* what, std::string_view text) {
    Log::error(function, "%s %.*s\n", what, static_cast<int>(text.size()), text.data());
    return 1;
  };
  const std::size_t start = stristr(value, kScheme);
  if (start == kNotFound) return fail(missing, value);
  std::string_view uri = value.substr(start);
  // Without brackets it ends with its line, behind which the header may have a further value.
  if (value.substr(0, start).find('<') == kNotFound) uri = uri.substr(0, uri.find_first_of("\r\n"));
  return analyzeURIString(uri, out, lookup) == 0 ? 0 : fail("error analyzing the URI String", uri);
}

void MySip::extractShortSipName(std::string_view text, FixedText<kSipNameCapacity>& out) {
  sSipUri uri;
  out.clear();
  if (analyzeHeaderUri(text, uri, "MySip::extractShortSipName") != 0) return;
  const std::string_view name = uri.pcName;
  out.assignCut(name.substr(0, name.find('@')));
}

void MySip::extractFarEndURI(std::string_view message, FixedText<200>& out) {
  constexpr const char* kFunction = "MySip::extractFarEndURI";
  out.clear();
  const std::size_t scheme = stristr(message, kScheme);
  const std::size_t start = scheme + kScheme.size();
  const std::size_t end = stristr(message, " SIP/2.0");
  if (scheme == kNotFound || end == kNotFound || end < start ||
      hasLineBreak(message.substr(start, end - start))) {
    Log::error(kFunction, "error analyzing the RURI\n");
    return;
  }
  const std::string_view uri = message.substr(start, end - start);
  if (uri.size() > out.maxLength()) Log::warning(kFunction, "Size of RURI is too long.\n");
  out.assignCut(uri);
}

void MySip::removeRport(FixedText<1000>& via) {
  constexpr std::string_view kParameter = ";rport";
  // Only the topmost entry is meant for us; a second line, or a second entry behind a comma, keeps its own.
  const std::string_view text = via.view();
  const std::string_view topmost = text.substr(0, text.find_first_of(",\r"));
  const std::size_t start = topmost.empty() ? kNotFound : stristr(topmost, kParameter);
  if (start == kNotFound) return;
  const std::size_t end = text.find_first_of(";,\r", start + kParameter.size());
  const std::string_view rest = end == kNotFound ? std::string_view() : text.substr(end);
  FixedText<1000> result;
  result.assignCut(text.substr(0, start));
  if (result.append(rest)) via = result;  // always: it is shorter than before
}

void MySip::replaceProxyIPInSipName(FixedText<kSipNameCapacity>& name) {
  const std::string_view text = name.view();
  const std::size_t at = text.find('@');
  if (pcSipProxyIP == "127.0.0.1" || at == kNotFound || text.substr(at + 1) != pcSipUAIP.view()) return;
  FixedText<kSipNameCapacity> result;
  if (result.assign(text.substr(0, at + 1)) && result.append(pcSipProxyIP)) {
    name = result;
  } else {
    Log::error("MySip::replaceProxyIPInSipName", "sip name too long %d\n",
               static_cast<int>(at + 1 + pcSipProxyIP.size()));
  }
}

void MySip::extractCallIDFromReferReplaces(std::string_view text, FixedText<367>& out) {
  constexpr const char* kFunction = "MySip::extractCallIDFromReferReplaces";
  constexpr std::string_view kEscapedAt = "%40";
  const std::size_t end = stristr(text, "%3B");
  std::string_view callId = text.substr(0, end);
  if (end == kNotFound) {
    Log::error(kFunction, "can't find call-id in %.*s\n", static_cast<int>(text.size()), text.data());
    const std::size_t lastAt = text.rfind(kEscapedAt);
    callId = text.substr(0, lastAt == kNotFound ? 0 : lastAt + kEscapedAt.size());
  }
  if (!copyReplacing(callId, kEscapedAt, "@", out))
    Log::error(kFunction, "Call-ID is too long %d\n", static_cast<int>(callId.size()));
}

void MySip::prepareCallIDToUseInReferReplaces(std::string_view callId, FixedText<300>& out) {
  if (!copyReplacing(callId, "@", "%40", out))
    Log::error("MySip::prepareCallIDToUseInReferReplaces", "Call-ID is too long %d\n",
               static_cast<int>(callId.size()));
}
