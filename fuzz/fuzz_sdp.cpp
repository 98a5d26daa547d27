// Any message's SDP, read on one leg and offered on the other. The first byte chooses the settings.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "app/config/Settings.h"
#include "fuzz/Require.h"
#include "sip/MySip.h"

namespace {

MySip& twoLegs() {
  static MySip sip;
  if (!sip.psPhones) {
    sip.psPhones = std::make_unique<sPhone[]>(2);
    for (int slot = 0; slot < 2; ++slot) {
      sip.phone(slot).iPairIndex = 1 - slot;
      sip.phone(slot).iRtpPort = 65532 + slot;
    }
  }
  return sip;
}

void checkLeg(const sPhone& leg) {
  require(leg.iNumCodecs >= 0 && leg.iNumCodecs <= kNumOfferedCodecs);
  require(leg.iRemoteRtpPort >= 0 && leg.iRemoteRtpPort <= 65535);
  require(leg.iNonAudioRemotePort >= -1 && leg.iNonAudioRemotePort <= 65535);
  require(leg.pcNonAudioMedia.empty() || leg.pcNonAudioMedia.view().ends_with("\r\n"));
  require(leg.pcTelephoneEventPT.empty() == leg.pcTelephoneEventAttrs.empty());
  require(!leg.bHoldByNullAddress || leg.bOnHold);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  iCopyCodecListFromInitialInvite = data[0] & 1;
  iCanHaveDifferentIPForDifferentMedia = data[0] >> 1 & 1;
  iUseConnectionSessionDescriptorForFarEndMediaAddress = data[0] >> 2 & 1;
  std::string_view message(reinterpret_cast<const char*>(data) + 1, size - 1);
  message = message.substr(0, message.find('\0')).substr(0, kMaxMessageLength);

  MySip& sip = twoLegs();
  for (int slot = 0; slot < 2; ++slot) {
    static_cast<sDialog&>(sip.phone(slot)) = sDialog{};
    sip.phone(slot).pcMediaIP.assignCut("255.255.255.255");
    sip.initializeCodecNegotiationList(slot);
  }
  const int result = sip.analyzeMediaInSDP(0, message);
  sPhone& leg = sip.phone(0);
  checkLeg(leg);
  require(result != 0 || !leg.bAudioSectionSeen || (leg.iNumCodecs > 0 && !leg.pcRemoteRtpIP.empty()));
  sip.copyCodecNegotionList(0, 1);
  sip.phone(1).pcTelephoneEventPT = leg.pcTelephoneEventPT;
  sip.phone(1).pcTelephoneEventAttrs = leg.pcTelephoneEventAttrs;
  MessageText text;
  require(sip.prepareSDP(1, text).starts_with("v=0\r\no=- 0 0 IN IP4 255.255.255.255\r\n"));
  sip.learnExternalIP(1, message);
  return 0;
}
