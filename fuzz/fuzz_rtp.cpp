// RTP datagrams of both sides through the packet path, on every pairing of codecs, with and without
// processing.
//
//   byte 0       codecs of side 0 and 1 (2 bits each: G.722, mu-law, A-law, all three), processing type
//   then each    side (bit 7) and length (12 bits) in 2 bytes, and the datagram
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include "app/config/Settings.h"
#include "fuzz/Require.h"
#include "rtp/MyRtp.h"
#include "tests/rtp/FakeEngine.h"

namespace {

constexpr int kLocalPort = 22900;

// Settings and tables, once. A name learned is never written: there is no sequence that starts a
// registration.
bool prepare() {
  iNumCallsToFilter = 1;
  iNeedToDoNoiseCancellation = 1;
  iNeedToDoAEC = 1;
  pcSipUAIPForBinding.assignCut("127.0.0.1");
  require(pcAECAlgorithm.assign("advanced") && pcDTMFActivatePrefix.assign("*1") &&
          pcDTMFSuffix.assign("#") && pcDTMFDisable.assign("*0") &&
          pcRegistrationLibrary.assign("/nowhere/"));
  require(myRtp.init() == 0);
  for (auto* tones : {&myRtp.psOKTones, &myRtp.psFailTones})
    for (sToneBuffer& tone : *tones) tone.iLength = kMaxToneBytes;
  return true;
}

CodecList codecsOf(int choice, int& count) {
  CodecList list;
  count = 0;
  for (const sCodecRow& row : kCodecRows) {
    if (row.iPayloadType < 0 || (choice != 3 && row.eCodec != choice)) continue;
    list[static_cast<std::size_t>(count)].eCodec = row.eCodec;
    list[static_cast<std::size_t>(count++)].iPayloadType = row.iPayloadType;
  }
  return list;
}

// The null address keeps what is sent away from the network.
int open(std::uint8_t choice) {
  PerSide<CodecList> codecs;
  sSessionPairRequest request;
  request.iCleaningType = choice >> 4 & 3;
  request.pcTelephoneEventPT = "101";
  for (int side = 0; side < 2; ++side) {
    sSessionPairLeg& leg = request.sLeg[side];
    leg.pcCallID = side == 0 ? "caller" : "partner";
    leg.iLocalRtpPort = kLocalPort + 2 * side;
    leg.pcRemoteIP = "0.0.0.0";
    codecs[side] = codecsOf(choice >> (2 * side) & 3, leg.iNumCodecs);
    leg.psCodecs = &codecs[side];
  }
  FakeEngine::reset();
  if ((choice & 0x80) != 0) FakeEngine::get().digits = "12*0#";
  return myRtp.openSessionPair(request);
}

void checkRecord(const sRtpSessionPair& record) {
  for (int side = 0; side < 2; ++side) {
    const int count = record.iJitterCount[side];
    require(count >= 0 && count < kJitterBufferEntries);
    const auto& entries = record.psJitter[side];
    require(std::is_sorted(entries.begin(), entries.begin() + count,
                           [](const auto& left, const auto& right) { return left.iSeq < right.iSeq; }));
    require(record.iOutRingAvailable[side] >= 0 && record.iOutRingAvailable[side] <= kOutRingSamples);
    require(record.iFrameFill[side] >= 0 && record.iFrameFill[side] < kMaxFrameSamples);
    require(record.pcDtmfDigits[side].size() <= kMaxDtmfDigits);
    require(record.iPacketsLost[side] <= record.iPacketsReceived[side]);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool prepared = prepare();
  if (!prepared || size == 0) return 0;
  const int pair = open(data[0]);
  require(pair == 0);
  std::span<const std::uint8_t> rest(data + 1, size - 1);
  std::array<char, kMessageBufferBytes> buffer;
  while (rest.size() >= 2) {
    const int side = rest[0] >> 7;
    const std::size_t wanted = (rest[0] & 0x0FU) << 8U | rest[1];
    rest = rest.subspan(2);
    const std::size_t length = std::min({wanted, rest.size(), std::size_t{kMaxDatagramBytes}});
    std::memcpy(buffer.data(), rest.data(), length);
    rest = rest.subspan(length);
    myRtp.analyzeRtpMsg(side, pair, buffer.data(), static_cast<int>(length));
    checkRecord(myRtp.psPairs[pair]);
  }
  myRtp.calcMOS(pair);
  for (int side = 0; side < 2; ++side) {
    const sCallFigures figures = myRtp.figuresOf(side, pair);
    require(figures.fMinMos <= figures.fAvgMos && figures.iConfidentVoicePercent <= 100);
  }
  require(myRtp.closeSessionPair("caller", "") == pair);
  return 0;
}
