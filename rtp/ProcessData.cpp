#include <algorithm>
#include <cstring>

#include "app/config/Log.h"
#include "rtp/MyRtp.h"
#include "rtp/OutRing.h"
#include "rtp/RateConversion.h"

namespace {

constexpr const char* kFunction = "MyRtp::processData";

// A registration leaves out the sounds of the key sequence that started it, and ends by itself: 2 s and 300 s
// at 8 kHz.
constexpr int kRegistrationSkippedSamples = 16'000;
constexpr int kRegistrationMaxSamples = 2'400'000;
// Digits that no further one follows are forgotten.
constexpr int kDigitsLifetimeSamples = 16'000;
constexpr int kDtmfBufferBytes = 100;

constexpr int kMaxPayloadBytes = kMessageBufferBytes;

// What a frame counts as when the engine says nothing about it.
sKestrovaFrameResult untouchedFrame(int bytes) {
  sKestrovaFrameResult result{};
  result.iOutBytes = bytes;
  result.iSpeech = 1;
  result.iConfidentVoice = 1;
  result.iGainPercent = 100;
  return result;
}

// The three areas do not overlap; saying so keeps the addresses in registers.
void decodeG711(const std::int16_t* __restrict linear, const char* __restrict payload,
                std::int16_t* __restrict samples, int count) {
  for (int i = 0; i < count; ++i) samples[i] = linear[static_cast<unsigned char>(payload[i])];
}

void writeSynch(const sRecording& recording, const char* stream, int frameBytes) {
  if (recording.pfFile) std::fprintf(recording.pfFile.get(), "%s %d\n", stream, frameBytes);
}

void writeSamples(const File& file, const std::int16_t* samples, int bytes) {
  if (file) std::fwrite(samples, 1, static_cast<std::size_t>(bytes), file.get());
}

void addToStatistics(sPairStatistics& statistics, int side, int samples, const sKestrovaFrameResult& result) {
  statistics.iProcessedSamples[side] += samples;
  if (result.iSpeech != 0) statistics.iSpeechSamples[side] += samples;
  if (result.iConfidentVoice != 0) statistics.iConfidentVoiceSamples[side] += samples;
  statistics.dNoiseSum[side] += result.iNoiseLevel;
  statistics.dAgcSum[side] += result.iGainPercent;
  statistics.dEchoSum[side] += result.iEchoLevel;
  statistics.iMaxNoise[side].raiseTo(result.iNoiseLevel);
  statistics.iMaxAgc[side].raiseTo(result.iGainPercent);
  statistics.iMaxEcho[side].raiseTo(result.iEchoLevel);
}

// Packets that are sent shorter than they came leave samples behind. When these overflow the ring, all but
// what this packet takes is dropped: keeping the ring full would delay the call by 100 ms for good, and
// overflow again at once.
void limitBacklog(sRtpSessionPair& record, int side, int outLen) {
  OutRing ring(record, side);
  if (ring.available() <= kOutRingSamples) return;
  Log::error(kFunction, "Too many samples in out buff %d", ring.available());
  const int needed = record.iSampleRate == 8000 ? outLen : 2 * outLen;
  ring.keepNewest(std::min(needed, kOutRingSamples));
}

}  // namespace

void MyRtp::processData(int side, int pair, char* payload, int payloadLen, SUPPORTED_CODECS_IN_QUORVEL codec,
                        int& outLen) {
  sRtpSessionPair& record = psPairs[pair];
  const int length = std::clamp(payloadLen, 0, kMaxPayloadBytes);
  for (int consumed = 0; consumed < length;) {
    const int bytes = decodeIntoFrame(side, pair, payload + consumed, length - consumed, codec);
    if (bytes == 0) break;
    consumed += bytes;
    if (record.iFrameFill[side] >= samplesPerFrame(record.iSampleRate)) {
      record.iFrameFill[side] = 0;  // first, so that a frame that fails is not filled further
      handleFrame(side, pair);
    }
  }
  outLen = length / 8 * 8;
  limitBacklog(record, side, outLen);
  encodeFromRing(side, pair, payload, outLen);
}

// Decodes as much as completes the frame at most. Returns the payload bytes used; 0 for a codec that cannot
// be decoded. In either direction of the rate conversion the frame fills in whole steps, so there is always
// room for at least one byte.
int MyRtp::decodeIntoFrame(int side, int pair, const char* payload, int remaining,
                           SUPPORTED_CODECS_IN_QUORVEL codec) {
  sRtpSessionPair& record = psPairs[pair];
  const bool narrowband = record.iSampleRate == 8000;
  int& fill = record.iFrameFill[side];
  const int room = samplesPerFrame(record.iSampleRate) - fill;
  std::int16_t* const target = record.psFrame[side].data() + fill;
  if (codec == eCodecG722) {
    const int bytes = std::min(remaining, narrowband ? room : room / 2);
    const int samples = myGWB.decode(&record.sG722Decoder[side], target, payload, bytes);
    if (narrowband) divideNumberOfSamples(target, samples);
    fill += narrowband ? samples / 2 : samples;
    return bytes;
  }
  if (codec != eCodecPCMU && codec != eCodecPCMA) return 0;
  const std::array<std::int16_t, 256>& linear = codec == eCodecPCMA ? psALawToLinear : psULawToLinear;
  const int bytes = std::min(remaining, narrowband ? room : room / 2);
  decodeG711(linear.data(), payload, target, bytes);
  if (!narrowband) duplicateNumberOfSamples(target, bytes);
  fill += narrowband ? bytes : 2 * bytes;
  return bytes;
}

void MyRtp::handleFrame(int side, int pair) {
  sRtpSessionPair& record = psPairs[pair];
  std::int16_t* const frame = record.psFrame[side].data();
  const int samples = samplesPerFrame(record.iSampleRate);
  const int frameBytes = 2 * samples;
  sKestrovaFrameResult result = untouchedFrame(frameBytes);
  writeSamples(record.pfOrigRecording[side].pfFile, frame, frameBytes);
  if (record.bRegistering[side]) {
    handleRegistrationFrame(side, pair, result);
  } else {
    handleEngineFrame(side, pair, result);
  }
  result.iOutBytes = std::clamp(result.iOutBytes, 0, frameBytes);
  checkDigits(side, pair, result);
  writeSamples(record.pfCleanRecording[side].pfFile, frame, result.iOutBytes);
  addToStatistics(record, side, samples, result);
  OutRing(record, side).write(frame, result.iOutBytes / 2);
}

void MyRtp::handleRegistrationFrame(int side, int pair, sKestrovaFrameResult& result) {
  sRtpSessionPair& record = psPairs[pair];
  const int samples = samplesPerFrame(record.iSampleRate);
  int& recorded = record.iRegistrationSamples[side];
  recorded += samples;
  if (recorded > kRegistrationMaxSamples) {
    doStopRegistration(side, pair);
    doActivation(side, pair, record.pcRegistrationName[side]);
  } else if (recorded >= kRegistrationSkippedSamples) {
    std::int16_t* const frame = record.psFrame[side].data();
    writeSamples(record.pfRegistrationRaw[side], frame, 2 * samples);
    if (KestrovaProcessFrame(channelOf(side, pair), frame, 2 * samples, frame, &result) != 0) {
      result = untouchedFrame(2 * samples);
    }
  }
}

// A frame that the engine fails to process counts as untouched.
void MyRtp::handleEngineFrame(int side, int pair, sKestrovaFrameResult& result) {
  sRtpSessionPair& record = psPairs[pair];
  std::int16_t* const frame = record.psFrame[side].data();
  const int bytes = 2 * samplesPerFrame(record.iSampleRate);
  const std::uint16_t channel = channelOf(side, pair);
  const int other = 1 - side;
  int failure = 0;
  if (record.bAecMic[side]) {
    failure = record.bNoiseReduction[side]
                  ? KestrovaComboAECNRProcessFrame(channel, frame, bytes, frame, &result)
                  : KestrovaAECProcessMicFrame(channel, frame, bytes, frame, &result);
  } else if (record.bNoiseReduction[side]) {
    failure = KestrovaProcessFrame(channel, frame, bytes, frame, &result);
  }
  if (failure != 0) result = untouchedFrame(bytes);
  writeSynch(record.pfSynchFile[side], "mic", bytes);
  if (record.bAecSpk[side]) (void)KestrovaAECProcessSpkFrame(channelOf(other, pair), frame, bytes);
  writeSynch(record.pfSynchFile[other], "spk", bytes);
}

void MyRtp::checkDigits(int side, int pair, const sKestrovaFrameResult& result) {
  sRtpSessionPair& record = psPairs[pair];
  if (result.iDtmf != 0) {
    std::array<char, kDtmfBufferBytes> digits{};
    if (KestrovaGetLastDTMFBuffer(channelOf(side, pair), digits.data(), kDtmfBufferBytes) != 0) {
      Log::error(kFunction, "could not get DTMF buffer");
    } else {
      digits.back() = '\0';
      checkAndHandleDTMFCommands(side, pair, digits.data());
    }
  }
  auto& digits = record.pcDtmfDigits[side];
  const std::int64_t position = record.iProcessedSamples[side];
  if (record.iLastDigitSample[side] == position) checkAndHandleDTMFCommands(side, pair, digits.data());
  if (!digits.empty() && position - record.iLastDigitSample[side] > kDigitsLifetimeSamples) digits.clear();
}

void MyRtp::encodeFromRing(int side, int pair, char* payload, int outLen) {
  sRtpSessionPair& record = psPairs[pair];
  const int other = 1 - side;
  const bool narrowband = record.iSampleRate == 8000;
  OutRing ring(record, side);
  const SUPPORTED_CODECS_IN_QUORVEL codec = record.psCodecs[other][0].eCodec;
  if (codec == eCodecG722) {
    // Twice the samples of the longest payload, at 16 kHz.
    std::array<std::int16_t, 2 * kMaxPayloadBytes> samples;
    const int needed = narrowband ? outLen : 2 * outLen;
    const int count = std::min(needed, ring.available());
    std::fill_n(samples.begin(), needed - count, std::int16_t{0});
    ring.read(samples.data() + needed - count, count);
    if (narrowband) duplicateNumberOfSamples(samples.data(), needed);
    myGWB.encode(&record.sG722Encoder[other], payload, samples.data(), 2 * outLen);
    return;
  }
  if (codec != eCodecPCMU && codec != eCodecPCMA) {
    ring.skip(ring.available());  // nothing can be sent of it
    return;
  }
  const std::array<std::uint8_t, 8192>& codes = codec == eCodecPCMA ? pucLinearToALaw : pucLinearToULaw;
  const int step = narrowband ? 1 : 2;
  const int count = std::min(outLen, ring.available() / step);
  std::memset(payload, codes[0], static_cast<std::size_t>(outLen - count));
  ring.encode(codes, step, payload + outLen - count, count);
}
