// A call's session pair in the media relay: opened, closed and restarted from the two slots.
#include <algorithm>
#include <span>

#include "app/config/Log.h"
#include "rtp/MyRtp.h"
#include "sip/MySip.h"

namespace {

sSessionPairLeg describeLeg(const sPhone& leg) {
  return {.pcCallID = leg.pcCallID.c_str(),
          .iLocalRtpPort = leg.iRtpPort,
          .iRemoteRtpPort = leg.iRemoteRtpPort,
          .pcRemoteIP = leg.pcRemoteRtpIP.c_str(),
          .iNumCodecs = leg.iNumCodecs,
          .psCodecs = &leg.psCodecs,
          .pcPartyName = leg.pcRemoteSipName.c_str(),
          .iNonAudioPort = leg.iNonAudioRemotePort};
}

}  // namespace

void MySip::openRtpSessionPair(int a, int b) {
  constexpr const char* kFunction = "MySip::openRtpSessionPair";
  const sPhone& first = phone(a);
  const sPhone& second = phone(b);
  const sSessionPairRequest request{.sLeg = {describeLeg(first), describeLeg(second)},
                                    .iCleaningType = first.iCleaningType,
                                    .sTimeCallStart = first.sTimeCallStart,
                                    .pcTelephoneEventPT = first.pcTelephoneEventPT.c_str()};
  const int relayIndex = myRtp.openSessionPair(request);
  if (relayIndex < 0) {
    Log::error(kFunction, "unable to open session pair for %d %s - %d %s\n", a, first.pcRemoteSipName.c_str(),
               b, second.pcRemoteSipName.c_str());
    return;
  }
  if (iNumActiveRtpIndexes >= iNumCallsToFilter) {
    Log::error(kFunction, "too many active calls in statistics\n");
    return;
  }
  piActiveRtpIndexes[static_cast<std::size_t>(iNumActiveRtpIndexes++)] = relayIndex;
}

// The relay takes the first pair that has either Call-ID: one that another call has, too, would find that
// one.
MySip::sRelayKey MySip::relayKeyOf(int a, int b) const {
  const char* first = psPhones[static_cast<std::size_t>(b)].pcCallID.c_str();
  const char* second = psPhones[static_cast<std::size_t>(a)].pcCallID.c_str();
  if (sharesCallID(b)) return {second, second};
  if (sharesCallID(a)) return {first, first};
  return {first, second};
}

void MySip::closeRtpSessionPair(int a, int b) {
  const sRelayKey key = relayKeyOf(a, b);
  const int relayIndex = myRtp.closeSessionPair(key.pcFirst, key.pcSecond);
  if (relayIndex < 0) return;
  const std::span<int> active(piActiveRtpIndexes.get(), static_cast<std::size_t>(iNumActiveRtpIndexes));
  const auto found = std::find(active.begin(), active.end(), relayIndex);
  if (found == active.end()) {
    if (!myRtp.psPairs[static_cast<std::size_t>(relayIndex)].bOpened) return;  // said when that failed
    Log::error("MySip::closeRtpSessionPair", "did not find match in statistics for %d\n", relayIndex);
    return;
  }
  std::copy(found + 1, active.end(), found);
  --iNumActiveRtpIndexes;
}

void MySip::restartRtpSession(int a, int b) {
  closeRtpSessionPair(a, b);
  openRtpSessionPair(std::min(a, b), std::max(a, b));
}
