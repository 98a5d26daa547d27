#include <string_view>

#include "app/config/Log.h"
#include "app/config/Settings.h"
#include "rtp/MyRtp.h"
#include "rtp/RtpHeader.h"
#include "rtp/VoiceProfile.h"

namespace {

constexpr int kEventBlockBytes = 4;                       // RFC 4733 section 2.3
constexpr std::string_view kDigits = "0123456789*#ABCD";  // by event code (RFC 4733 section 3.2)
constexpr unsigned char kEndBit = 0x80;

using Setting = FixedText<300>;

// The name in prefix + name + suffix, somewhere in the digits; absent when the two do not occur in this
// order, or when nothing was configured that could occur.
struct sNamedCommand {
  bool bFound = false;
  std::string_view pcName;
};

sNamedCommand findNamedCommand(std::string_view digits, std::string_view prefix, std::string_view suffix) {
  if (prefix.empty() || suffix.empty()) return {};
  const std::size_t start = digits.find(prefix);
  if (start == std::string_view::npos) return {};
  const std::string_view rest = digits.substr(start + prefix.size());
  const std::size_t length = rest.find(suffix);
  if (length == std::string_view::npos) return {};
  return {true, rest.substr(0, length)};
}

// False: there is no room.
bool storeDigit(sPairDigits& digits, int side, char digit) {
  auto& stored = digits.pcDtmfDigits[side];
  const std::string_view text = stored.view();
  if (!text.empty() && text.back() == digit) return true;  // senders repeat the end packet
  return stored.append({&digit, 1});
}

}  // namespace

int MyRtp::handleTelephoneEvent(int side, int pair, const char* msg, int len) {
  sRtpSessionPair& record = psPairs[pair];
  const int start = RtpHeader(msg).payloadStart(len);
  const auto* block = reinterpret_cast<const unsigned char*>(msg) + start;
  for (int left = len - start; left >= kEventBlockBytes; left -= kEventBlockBytes) {
    const std::size_t event = block[0];
    const bool isEnd = (block[1] & kEndBit) != 0;
    block += kEventBlockBytes;
    if (event >= kDigits.size()) continue;
    record.iLastDigitSample[side] = record.iProcessedSamples[side];
    if (!isEnd || storeDigit(record, side, kDigits[event])) continue;
    // Said once for the packet, which may hold hundreds of digits: no other of it would find room, either.
    Log::warning("MyRtp::handleTelephoneEvent", "No room to insert DTMF");
    break;
  }
  return 0;
}

void MyRtp::checkAndHandleDTMFCommands(int side, int pair, char* digits) {
  sRtpSessionPair& record = psPairs[pair];
  if (record.pcLastDtmfCommand[side] == std::string_view(digits)) return;
  record.pcLastDtmfCommand[side].assignCut(digits);
  const Setting suffix = pcDTMFSuffix.load();
  const sNamedCommand registration = findNamedCommand(digits, pcDTMFRegisterPrefix.load(), suffix);
  if (registration.bFound && !registration.pcName.empty()) {
    doRegistration(side, pair, registration.pcName);
    digits[0] = '\0';
    return;
  }
  const sNamedCommand activation = findNamedCommand(digits, pcDTMFActivatePrefix.load(), suffix);
  if (activation.bFound) {
    doActivation(side, pair, activation.pcName);
    if (activation.pcName.empty()) doActivation(1 - side, pair, {});
    digits[0] = '\0';
    return;
  }
  const Setting disable = pcDTMFDisable.load();
  if (disable.empty() || std::string_view(digits).find(disable.view()) == std::string_view::npos) return;
  doDisable(side, pair);
  doDisable(1 - side, pair);
  digits[0] = '\0';
}

void MyRtp::doActivation(int side, int pair, std::string_view name) {
  if (psPairs[pair].bRegistering[side]) doAbortRegistration(side, pair);
  VoiceProfile profile;
  if ((name.empty() || loadProfile(side, pair, name, profile)) &&
      restartNoiseChannel(side, pair, profile.speaker(), false) && restartEchoChannel(side, pair, false)) {
    playOKTone(1 - side, pair);
  } else {
    playFailTone(1 - side, pair);
  }
}

void MyRtp::doDisable(int side, int pair) {
  if (psPairs[pair].bRegistering[side]) doAbortRegistration(side, pair);
  const bool noiseDone = restartNoiseChannel(side, pair, nullptr, true);
  const bool echoDone = restartEchoChannel(side, pair, true);
  if (noiseDone && echoDone) {
    playOKTone(1 - side, pair);
  } else {
    playFailTone(1 - side, pair);
  }
}

// A side without the channel has nothing to restart. A channel that cannot be started again stays terminated
// until a later command succeeds; its audio passes as it is.
bool MyRtp::restartNoiseChannel(int side, int pair, const sAPISpeaker* speaker, bool bypassed) {
  if (!psPairs[pair].bNoiseReduction[side]) return true;
  const std::uint16_t channel = channelOf(side, pair);
  sKestrovaInit init;
  fillKestrovaInitNoise(init, pair);
  init.bStartBypassed = bypassed ? 1 : 0;
  init.psSpeakerInformation = speaker;
  (void)KestrovaTerminate(channel);
  const int result =
      speaker != nullptr ? KestrovaIpsavoxInit(channel, &init) : KestrovaGroupInit(channel, &init);
  if (result == 0) return true;
  Log::warning(bypassed ? "MyRtp::doDisable" : "MyRtp::doActivation",
               "unable to initialize kestrova channel %d\n", channel);
  return false;
}

bool MyRtp::restartEchoChannel(int side, int pair, bool bypassed) {
  if (!psPairs[pair].bAecMic[side]) return true;
  const std::uint16_t channel = channelOf(side, pair);
  sKestrovaInit init;
  fillKestrovaInitAEC(init, pair);
  init.bStartBypassed = bypassed ? 1 : 0;
  (void)KestrovaAECTerminate(channel);
  if (KestrovaAECInit(channel, &init) == 0) return true;
  Log::warning(bypassed ? "MyRtp::doDisable" : "MyRtp::doActivation",
               "unable to initialize kestrova aec channel %d\n", channel);
  return false;
}
