#include <algorithm>
#include <array>
#include <cmath>

#include "rtp/MyRtp.h"
#include "rtp/RtpHeader.h"

namespace {

// What delay, loss and jitter take off the MOS, by bucket: 50 ms wide for delay and jitter, 1 % for loss. The
// last bucket also stands for everything above it.
constexpr int kBucketMs = 50;
constexpr std::array<float, 11> psDelayToMOS = {0, 0, 0, 0, 0.1F, 0.26F, 0.48F, 0.69F, 0.89F, 1.07F, 1.22F};
constexpr std::array<float, 11> psPacketLossToMOS = {0,     0.11F, 0.2F,  0.31F, 0.41F, 0.52F,
                                                     0.63F, 0.73F, 0.84F, 0.94F, 1.04F};
constexpr std::array<float, 7> psJitterToMOS = {0, 0, 0.1F, 0.48F, 0.89F, 1.22F, 1.46F};
constexpr float kBestMos = 5.0F;

// A sequence number that is further ahead belongs to another stream.
constexpr int kMaxSequenceLead = 999;

template <std::size_t N>
float impairment(const std::array<float, N>& table, std::int64_t milliseconds) {
  constexpr std::int64_t kLast = static_cast<std::int64_t>(N - 1) * kBucketMs;
  return table[static_cast<std::size_t>(std::clamp<std::int64_t>(milliseconds, 0, kLast) / kBucketMs)];
}

float lossImpairment(float percent) {
  const float loss = std::clamp(percent, 0.0F, static_cast<float>(psPacketLossToMOS.size() - 1));
  const auto lower = static_cast<std::size_t>(loss);
  const std::size_t upper = std::min(lower + 1, psPacketLossToMOS.size() - 1);
  return std::lerp(psPacketLossToMOS[lower], psPacketLossToMOS[upper], loss - static_cast<float>(lower));
}

}  // namespace

void MyRtp::calcJitterStatistics(int seq, int side, int pair) {
  sRtpSessionPair& record = psPairs[pair];
  const int count = record.iJitterCount[side];
  if (count == 0) return;
  const auto& entries = record.psJitter[side];
  const int lead = entries[count - 1].iSeq - seq;
  if (lead < 1 || lead > kMaxSequenceLead) return;
  int total = 0;
  for (int i = count - 1; i >= 0 && entries[i].iSeq > seq; --i) total += entries[i].iLength - kRtpHeaderBytes;
  record.iMaxJitter[side].raiseTo(total);
  record.iJitterSum[side] += total;
}

sCallFigures MyRtp::figuresOf(int side, int pair) const {
  const sRtpSessionPair& record = psPairs[pair];
  const std::int64_t packets = std::max<int>(record.iPacketsReceived[side], 1);
  const int unitsPerMs = psCodecTiming[record.psCodecs[side][0].eCodec].iRtcpUnitsPerMs;
  const std::int64_t samples = std::max<std::int64_t>(record.iProcessedSamples[side], 1);
  const auto frameAverage = [&](double sum) {
    return static_cast<int>(sum / static_cast<double>(samples) * samplesPerFrame(record.iSampleRate));
  };
  sCallFigures figures;
  figures.iConfidentVoicePercent = static_cast<int>(record.iConfidentVoiceSamples[side] * 100 / samples);
  figures.iAvgNoise = frameAverage(record.dNoiseSum[side]);
  figures.iMaxNoise = record.iMaxNoise[side];
  figures.iAvgAgc = frameAverage(record.dAgcSum[side]);
  figures.iMaxAgc = record.iMaxAgc[side];
  figures.iAvgEcho = frameAverage(record.dEchoSum[side]);
  figures.iMaxEcho = record.iMaxEcho[side];
  figures.iAvgJitterMs = static_cast<int>(record.iJitterSum[side] / (packets * unitsPerMs));
  figures.iMaxJitterMs = record.iMaxJitter[side] / unitsPerMs;
  figures.fPacketLossPercent =
      static_cast<float>(record.iPacketsLost[side] * 100.0 / static_cast<double>(packets));
  figures.iAvgDelayMs = static_cast<int>(record.iDelaySum[side] / packets);
  figures.iMaxDelayMs = record.iMaxDelay[side];
  figures.fAvgMos = record.fAvgMos[side];
  figures.fMinMos = record.fMinMos[side];
  return figures;
}

void MyRtp::calcMOS(int pair) {
  sRtpSessionPair& record = psPairs[pair];
  for (int side = 0; side < 2; ++side) {
    const sCallFigures figures = figuresOf(side, pair);
    const float base = kBestMos - psCodecTiming[record.psCodecs[side][0].eCodec].fCodecFactor -
                       lossImpairment(figures.fPacketLossPercent);
    record.fAvgMos[side] = base - impairment(psDelayToMOS, figures.iAvgDelayMs) -
                           impairment(psJitterToMOS, figures.iAvgJitterMs);
    record.fMinMos[side] = base - impairment(psDelayToMOS, figures.iMaxDelayMs) -
                           impairment(psJitterToMOS, figures.iMaxJitterMs);
  }
}

int MyRtp::callSeconds(int pair) const {
  return static_cast<int>(psPairs[pair].iProcessedSamples[0] / psPairs[pair].iSampleRate);
}
