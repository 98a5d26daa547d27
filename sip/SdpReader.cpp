// Reading a peer's SDP into its leg: address, port, codecs, telephone events, hold, and a further media
// section that is only relayed.
//
//     m=audio 4000 RTP/AVP 8 0 101           a section runs from its "m="
//     a=rtpmap:101 telephone-event/8000
//     m=video 5000 RTP/AVP 96                to the next one or to the end of the message
#include <algorithm>
#include <array>

#include "app/config/Log.h"
#include "sip/MySip.h"

namespace {

constexpr auto kNotFound = std::string_view::npos;
constexpr std::string_view kLineEnd = "\r\n";
constexpr std::string_view kConnection = "c=IN IP4 ";
constexpr std::size_t kAddressCapacity = 17;
constexpr const char* kAnalyze = "MySip::analyzeMediaInSDP";
// The older way to put a call on hold (RFC 3264 section 8.4).
constexpr std::string_view kNullAddress = "0.0.0.0";

// ---- Non-audio section ----

// Appends the lines of a section without those that give a connection address of its own.
bool appendWithoutConnection(std::string_view lines, FixedText<3003>& out) {
  constexpr std::string_view kConnectionLine = "\r\nc=IN IP4 ";
  for (;;) {
    const std::size_t line = MySip::stristr(lines, kConnectionLine);
    if (!out.append(lines.substr(0, line))) return false;
    if (line == kNotFound) return true;
    const std::size_t end = lines.find(kLineEnd, line + kLineEnd.size());
    lines = end == kNotFound ? std::string_view() : lines.substr(end);
  }
}

// Where the port of "m=video 5000/2 RTP/AVP 96" stands, and what it is.
struct sMediaPort {
  std::size_t begin = 0;
  std::size_t end = 0;
  int iPort = 0;
};

bool findMediaPort(std::string_view section, sMediaPort& out) {
  const std::string_view line = section.substr(0, section.find(kLineEnd));
  const std::size_t blank = line.find(' ');
  out.begin = line.find_first_not_of(' ', blank);
  if (blank == kNotFound || out.begin == kNotFound) return false;
  out.end = std::min(line.find_first_not_of("+-0123456789", out.begin), line.size());
  return MySip::readPort(line.substr(out.begin), out.iPort);
}

// Rewrites the section so that it can be offered on the partner's leg with Quorvel's address and port. Port 0
// stays: it says that the stream is refused (RFC 3264 section 6), which the other party has to learn.
bool rewriteForOwnPort(std::string_view section, int ownPort, sPhone& leg) {
  sMediaPort port;
  if (!findMediaPort(section, port)) return false;
  leg.iNonAudioRemotePort = port.iPort;
  FixedText<3003>& out = leg.pcNonAudioMedia;
  return out.assign(section.substr(0, port.begin)) && out.appendFormat("%d", port.iPort == 0 ? 0 : ownPort) &&
         appendWithoutConnection(section.substr(port.end), out);
}

// Keeps the section for relaying to the partner's leg. One that cannot be relayed is left out, logged; the
// audio goes on without it. False, logged: it has no connection address where it needs one.
bool storeNonAudioSection(int slot, std::string_view section, std::string_view msg, int ownPort,
                          sPhone& leg) {
  section = section.substr(0, section.find_last_not_of(kLineEnd) + 1);
  FixedText<3003>& out = leg.pcNonAudioMedia;
  bool stored = false;
  if (iCanHaveDifferentIPForDifferentMedia == 0) {
    stored = rewriteForOwnPort(section, ownPort, leg);
  } else if (MySip::contains(section, kConnection)) {
    stored = out.assign(section);
  } else {
    const std::string_view address = MySip::extractToken(kConnection, kAddressCapacity, msg);
    if (address.empty()) {
      Log::error(kAnalyze, "unable to find connection data for non-audio segment for phone %d\n", slot);
      return false;
    }
    stored = out.assign(section) && out.append(kLineEnd) && out.append(kConnection) && out.append(address);
  }
  if (stored && out.append(kLineEnd)) return true;
  Log::warning(kAnalyze, "non-audio segment in SDP is not good for phone %d\n", slot);
  out.clear();
  leg.iNonAudioRemotePort = -1;
  return true;
}

// ---- Audio section ----

// The leg's media address as the section, else the session, gives it; empty if neither does.
FixedText<17> readConnectionAddress(std::string_view section, std::string_view msg) {
  FixedText<17> address;
  const std::string_view where = MySip::contains(section, kConnection) ? section : msg;
  address.assignCut(MySip::extractToken(kConnection, kAddressCapacity, where));
  return address;
}

void readDirection(std::string_view section, sDialog& leg) {
  struct sDirection {
    std::string_view attribute;
    bool bHold;
  };
  constexpr std::array<sDirection, 4> kDirections{{
      {"a=sendrecv", false},
      {"a=inactive", true},
      {"a=recvonly", true},
      {"a=sendonly", true},
  }};
  leg.pcDirectionAttribute.clear();
  for (const sDirection& direction : kDirections) {
    if (!MySip::contains(section, direction.attribute)) continue;
    leg.pcDirectionAttribute.assignCut(direction.attribute);
    (void)leg.pcDirectionAttribute.append(kLineEnd);  // 12 of 19 characters
    if (direction.bHold) leg.bOnHold = true;
    return;
  }
}

void readHold(std::string_view section, sDialog& leg) {
  leg.bHoldByNullAddress = leg.pcRemoteRtpIP == kNullAddress;
  leg.bOnHold = leg.bHoldByNullAddress;
  readDirection(section, leg);
}

// What to collect of a section's attribute lines.
struct sValueKind {
  const char* pcFunction;
  std::string_view start;
  std::size_t capacity;
  const char* pcTooMany;
  const char* pcTooLong;
};

void collectValues(const sValueKind& kind, std::string_view text, MySip::SdpValues& out, int& count) {
  count = 0;
  for (std::size_t found = MySip::stristr(text, kind.start); found != kNotFound;
       found = MySip::stristr(text, kind.start)) {
    text.remove_prefix(found + kind.start.size());
    const std::string_view value = text.substr(0, text.find(kLineEnd));
    if (value.size() >= kind.capacity) {
      Log::error(kind.pcFunction, "%s", kind.pcTooLong);
      continue;
    }
    if (static_cast<std::size_t>(count) == out.size()) {
      Log::error(kind.pcFunction, "%s", kind.pcTooMany);
      return;
    }
    out[static_cast<std::size_t>(count++)] = value;
  }
}

// The first fmtp value for the payload type, or empty.
std::string_view findFmtp(int payloadType, std::string_view section) {
  MySip::SdpValues values;
  int count = 0;
  MySip::extractFMTPs(values, count, section);
  for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i) {
    int number = -1;
    if (MySip::readDecimal(values[i], number) && number == payloadType) return values[i];
  }
  return {};
}

// The first rtpmap value for telephone events (RFC 4733), or empty.
std::string_view findTelephoneEvent(std::string_view section) {
  MySip::SdpValues values;
  int count = 0;
  MySip::extractRTPMaps(values, count, section);
  for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i) {
    if (MySip::contains(values[i], "telephone-event")) return values[i];
  }
  return {};
}

bool formatTelephoneEventAttrs(std::string_view rtpmap, std::string_view fmtp, int payloadType,
                               sDialog& leg) {
  const int length = static_cast<int>(rtpmap.size());
  if (fmtp.empty()) {
    return leg.pcTelephoneEventAttrs.format("a=rtpmap:%.*s\r\na=fmtp:%d 0-15\r\n", length, rtpmap.data(),
                                            payloadType);
  }
  return leg.pcTelephoneEventAttrs.format("a=rtpmap:%.*s\r\na=fmtp:%.*s\r\n", length, rtpmap.data(),
                                          static_cast<int>(fmtp.size()), fmtp.data());
}

bool readTelephoneEvents(std::string_view section, sDialog& leg) {
  leg.pcTelephoneEventPT.clear();
  leg.pcTelephoneEventAttrs.clear();
  const std::string_view rtpmap = findTelephoneEvent(section);
  if (rtpmap.empty()) return true;
  int payloadType = -1;
  if (!MySip::readDecimal(rtpmap, payloadType) || payloadType < 0 || payloadType > kMaxPayloadType) {
    Log::error("MySip::analyzeAudioInSDPHelper", "unable to find type in %.*s\n",
               static_cast<int>(rtpmap.size()), rtpmap.data());
    return false;
  }
  // The values are shorter than 50 and 120 characters, so both texts fit.
  return leg.pcTelephoneEventPT.format(" %d", payloadType) &&
         formatTelephoneEventAttrs(rtpmap, findFmtp(payloadType, section), payloadType, leg);
}

}  // namespace

std::size_t MySip::findNextMediaSection(std::string_view text, std::size_t position, bool& isAudio) {
  constexpr std::string_view kStart = "\r\nm=";
  constexpr std::string_view kAudio = "m=audio";
  isAudio = false;
  if (position >= text.size()) return kNotFound;
  const std::size_t found = stristr(text.substr(position), kStart);
  if (found == kNotFound) return kNotFound;
  const std::size_t section = position + found + kLineEnd.size();
  isAudio = contains(text.substr(section, kAudio.size()), kAudio);
  return section;
}

int MySip::analyzeMediaInSDP(int slot, std::string_view msg) {
  constexpr int kMaxSections = 20;  // each bad one is a record in the log
  int sections = 0;
  int result = 0;
  phone(slot).bAudioSectionSeen = false;
  bool isAudio = false;
  std::size_t start = findNextMediaSection(msg, 0, isAudio);
  const bool hasSections = start != kNotFound;
  while (start != kNotFound) {
    bool nextIsAudio = false;
    const std::size_t next = findNextMediaSection(msg, start, nextIsAudio);
    const std::string_view section = msg.substr(start, next == kNotFound ? kNotFound : next - start);
    if (!isAudio) {
      if (!storeNonAudioSection(slot, section, msg, partnerOf(slot).iRtpPort, phone(slot))) result = 1;
    } else {
      phone(slot).bAudioSectionSeen = true;
      if (analyzeAudioInSDPHelper(slot, section, msg) == 0) {
        Log::error(kAnalyze, "audio section in SDP is not good for phone %d\n", slot);
        result = 1;
      }
    }
    start = next;
    isAudio = nextIsAudio;
    if (start != kNotFound && ++sections == kMaxSections) {
      Log::warning(kAnalyze, "only %d media sections of phone %d are read\n", kMaxSections, slot);
      break;
    }
  }
  // What is left must have a media section, or the partner would be sent an SDP without one.
  const sPhone& leg = phone(slot);
  if (hasSections && !leg.bAudioSectionSeen && leg.pcNonAudioMedia.empty()) result = 1;
  return result;
}

int MySip::analyzeAudioInSDPHelper(int slot, std::string_view section, std::string_view msg) {
  constexpr const char* kFunction = "MySip::analyzeAudioInSDPHelper";
  constexpr std::string_view kStart = "m=audio ";
  sPhone& leg = phone(slot);
  const std::size_t found = stristr(section, kStart);
  if (found == kNotFound) return 0;
  const std::string_view line = section.substr(std::min(found + kStart.size(), section.size()));
  const std::size_t lineEnd = line.find(kLineEnd);
  if (!readPort(line, leg.iRemoteRtpPort) || lineEnd == kNotFound) return 0;

  const std::string_view formats = line.substr(0, lineEnd);
  const std::string_view rest = line.substr(lineEnd + kLineEnd.size());
  if (!rest.empty()) {
    initializeCodecNegotiationList(slot);
    narrowCodecNegotiationList(slot, formats, rest);
    if (leg.iNumCodecs == 0) {
      Log::warning(kFunction, "Could not match any CODEC.");
      return 0;
    }
  }
  if (!contains(formats, "RTP/AVP")) return 0;

  if (iUseConnectionSessionDescriptorForFarEndMediaAddress != 0) {
    leg.pcRemoteRtpIP = readConnectionAddress(section, msg);
  } else {
    leg.pcRemoteRtpIP.assignCut(ipOf(leg.sRemoteAddress));
  }
  if (leg.pcRemoteRtpIP.empty()) {
    Log::error(kFunction, "unable to find connection data for phone %d\n", slot);
    return 0;
  }
  readHold(section, leg);
  return readTelephoneEvents(section, leg) ? 1 : 0;
}

void MySip::extractRTPMaps(SdpValues& out, int& count, std::string_view text) {
  static constexpr sValueKind kKind{"MySip::extractRTPMaps", "a=rtpmap:", 50, "too many RTP Maps\n",
                                    "size of RTP Map value too long\n"};
  collectValues(kKind, text, out, count);
}

void MySip::extractFMTPs(SdpValues& out, int& count, std::string_view text) {
  static constexpr sValueKind kKind{"MySip::extractFMTPs", "a=fmtp:", 120, "too many FMTPs\n",
                                    "size of FMTP value too long\n"};
  collectValues(kKind, text, out, count);
}

void MySip::initializeAudioWithoutSDP(int slot) {
  sDialog& leg = phone(slot);
  leg.bAudioSectionSeen = true;
  leg.iRemoteRtpPort = 0;
  leg.pcRemoteRtpIP.assignCut(kNullAddress);
  leg.bOnHold = false;
  leg.bHoldByNullAddress = false;
  leg.pcDirectionAttribute.clear();
  leg.pcTelephoneEventPT.clear();
  leg.pcTelephoneEventAttrs.clear();
}
