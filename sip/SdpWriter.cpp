// Quorvel's own SDP for a leg, and the address that it announces there.
#include <arpa/inet.h>
#include <span>

#include "app/config/Log.h"
#include "sip/MySip.h"

namespace {

std::span<const sCodecNegotiationList_t> codecsOf(const sPhone& leg) {
  return std::span(leg.psCodecs).first(static_cast<std::size_t>(leg.iNumCodecs));
}

bool appendAudioLine(const sPhone& leg, MessageText& out) {
  bool fits = out.appendFormat("m=audio %d RTP/AVP", leg.iRtpPort);
  for (const sCodecNegotiationList_t& codec : codecsOf(leg)) {
    if (codec.iPayloadType == -1) {
      Log::warning("MySip::prepareSDP", "Ignoring unitialized codec\n");
    } else {
      fits = fits && out.appendFormat(" %d", codec.iPayloadType);
    }
  }
  return fits && out.append(leg.pcTelephoneEventPT) && out.append("\r\n");
}

bool appendAudioAttributes(const sPhone& leg, const sPhone& partner, MessageText& out) {
  bool fits = true;
  for (const sCodecNegotiationList_t& codec : codecsOf(leg)) {
    if (codec.iPayloadType == -1) continue;
    fits = fits && out.appendFormat("a=rtpmap:%d %s\r\n", codec.iPayloadType, codec.pcName.c_str());
  }
  return fits && out.append(partner.pcDirectionAttribute) && out.append(leg.pcTelephoneEventAttrs);
}

bool appendConnection(const sPhone& leg, const sPhone& partner, MessageText& out) {
  return out.appendFormat("c=IN IP4 %s\r\n", partner.bHoldByNullAddress ? "0.0.0.0" : leg.pcMediaIP.c_str());
}

}  // namespace

std::string_view MySip::prepareSDP(int slot, MessageText& out) {
  const sPhone& leg = phone(slot);
  const sPhone& partner = partnerOf(slot);
  // Where every section has its own address, ours is the audio section's; otherwise it is the session's,
  // which stands before the time.
  const bool connectionInAudio = partner.bAudioSectionSeen && !partner.pcNonAudioMedia.empty() &&
                                 iCanHaveDifferentIPForDifferentMedia != 0;
  bool fits = out.format("v=0\r\no=- %d %d IN IP4 %s\r\ns=-\r\n", leg.iSdpSessionID, leg.iSdpVersion,
                         leg.pcMediaIP.c_str());
  if (!connectionInAudio) fits = fits && appendConnection(leg, partner, out);
  fits = fits && out.append("t=0 0\r\n");
  if (partner.bAudioSectionSeen) {
    fits = fits && appendAudioLine(leg, out);
    if (connectionInAudio) fits = fits && appendConnection(leg, partner, out);
    fits = fits && appendAudioAttributes(leg, partner, out);
  }
  fits = fits && out.append(partner.pcNonAudioMedia);
  // The fields' capacities add up to less than half of the buffer.
  static_assert(sizeof(sDialog::pcNonAudioMedia) + sizeof(sDialog::pcTelephoneEventAttrs) +
                    kMaxCodecsPerLeg * (sizeof(sCodecNegotiationList_t) + 32) + 500 <
                sizeof(MessageText) / 2);
  if (!fits) out.clear();
  return out.view();
}

void MySip::learnExternalIP(int slot, std::string_view msg) {
  constexpr std::string_view kReceived = "received=";
  const std::string_view via = extractToken("Via:", 1000, msg);
  const std::size_t found = stristr(via, kReceived);
  if (found == std::string_view::npos) return;
  std::string_view address = via.substr(found + kReceived.size());
  address = address.substr(0, address.find_first_of(";,\r"));
  FixedText<17> ip;
  in_addr binary{};
  // What we announce as our own address must be one: "1.2.3.4" is the shortest.
  if (ip.assign(address) && inet_pton(AF_INET, ip.c_str(), &binary) == 1) {
    phone(slot).pcMediaIP = ip;
  } else {
    Log::error("MySip::learnExternalIP", "Illegal IP in %.*s\n", static_cast<int>(via.size()), via.data());
  }
}
