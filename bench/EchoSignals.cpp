#include "bench/EchoSignals.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <numbers>
#include <random>
#include <sndfile.h>
#include <stdexcept>

namespace {

constexpr double kTalkerLevel = 1642;  // rms, -26 dB
constexpr float kLoudest = 32000;

Audio readWav(const std::string& sName, int iRate) {
  SF_INFO info{};
  SNDFILE* pFile = sf_open(sName.c_str(), SFM_READ, &info);
  if (pFile == nullptr) throw std::runtime_error(sName + ": " + sf_strerror(nullptr));
  Audio audio(static_cast<std::size_t>(info.frames));
  sf_command(pFile, SFC_SET_NORM_FLOAT, nullptr, SF_FALSE);
  const auto lRead = sf_read_float(pFile, audio.data(), info.frames);
  sf_close(pFile);
  audio.resize(static_cast<std::size_t>(lRead));
  if (info.samplerate != iRate) throw std::runtime_error(sName + ": wrong rate");
  return audio;
}

double meanSquare(const Audio& audio, std::size_t uFrom, std::size_t uTo) {
  double dSum = 0;
  for (std::size_t i = uFrom; i < std::min(uTo, audio.size()); ++i) dSum += double{audio[i]} * audio[i];
  return dSum / static_cast<double>(std::max<std::size_t>(1, uTo - uFrom));
}

// Brings the talking parts to the level.
void normalise(Audio& audio) {
  double dLargest = 0;
  constexpr std::size_t kFrame = 160;
  std::vector<double> powers;
  for (std::size_t i = 0; i + kFrame <= audio.size(); i += kFrame) {
    powers.push_back(meanSquare(audio, i, i + kFrame));
    dLargest = std::max(dLargest, powers.back());
  }
  double dSum = 0;
  int iCount = 0;
  for (const double dPower : powers) {
    if (dPower < dLargest * 1e-3) continue;
    dSum += dPower;
    ++iCount;
  }
  const auto fGain = static_cast<float>(kTalkerLevel / std::sqrt(dSum / std::max(1, iCount) + 1e-9));
  for (float& x : audio) x = std::clamp(x * fGain, -kLoudest, kLoudest);
}

}  // namespace

Audio readTalker(const std::vector<std::string>& sFiles, int iRate, double dSeconds) {
  const auto uWanted = static_cast<std::size_t>(dSeconds * iRate);
  Audio audio;
  for (std::size_t u = 0; audio.size() < uWanted; u = (u + 1) % sFiles.size()) {
    Audio sentence = readWav(sFiles[u], iRate);
    normalise(sentence);
    audio.insert(audio.end(), sentence.begin(), sentence.end());
    audio.resize(audio.size() + static_cast<std::size_t>(0.2 * iRate), 0);
  }
  audio.resize(uWanted);
  return audio;
}

Audio echoOf(const Audio& far, const EchoPath& path, int iRate) {
  constexpr double kRoomSeconds = 0.064;
  constexpr double kDecayDb = 40;  // over the length of the room
  std::mt19937 random(path.uSeed);
  std::normal_distribution<double> normal;
  std::vector<float> room(static_cast<std::size_t>(kRoomSeconds * iRate));
  double dEnergy = 0;
  for (std::size_t i = 0; i < room.size(); ++i) {
    const double dPart = static_cast<double>(i) / static_cast<double>(room.size());
    const double dTap = (i == 0 ? 3.0 : normal(random)) * std::pow(10, -kDecayDb * dPart / 20);
    room[i] = static_cast<float>(dTap);
    dEnergy += dTap * dTap;
  }
  const auto fGain = static_cast<float>(std::pow(10, -path.dReturnLossDb / 20) / std::sqrt(dEnergy));
  const auto uDelay = static_cast<std::size_t>(path.dDelayMs / 1000 * iRate);
  Audio echo(far.size(), 0);
  for (std::size_t n = 0; n + uDelay < far.size(); ++n) {
    float x = far[n];
    // A cubic that is 30 dB below the signal at the loudest.
    if (path.bNonLinear) x -= 0.1F * x * x * x / (32768.0F * 32768.0F);
    if (x == 0) continue;
    for (std::size_t k = 0; k < room.size() && n + uDelay + k < echo.size(); ++k) {
      echo[n + uDelay + k] += fGain * room[k] * x;
    }
  }
  return echo;
}

void addBackground(Audio& audio, unsigned uSeed) {
  std::mt19937 random(uSeed);
  std::normal_distribution<float> normal(0, 8);
  for (float& x : audio) x += normal(random);
}

Audio drifted(const Audio& audio, double dPartsPerMillion) {
  Audio out(audio.size(), 0);
  constexpr int kHalf = 16;
  for (std::size_t i = 0; i < out.size(); ++i) {
    const double dAt = static_cast<double>(i) * (1 + dPartsPerMillion * 1e-6);
    const auto lBase = static_cast<long>(std::floor(dAt));
    double dSum = 0;
    for (long k = lBase - kHalf + 1; k <= lBase + kHalf; ++k) {
      if (k < 0 || k >= static_cast<long>(audio.size())) continue;
      const double d = dAt - static_cast<double>(k);
      const double dSinc = std::abs(d) < 1e-9 ? 1 : std::sin(std::numbers::pi * d) / (std::numbers::pi * d);
      dSum +=
          dSinc * (0.5 + 0.5 * std::cos(std::numbers::pi * d / kHalf)) * audio[static_cast<std::size_t>(k)];
    }
    out[i] = static_cast<float>(dSum);
  }
  return out;
}

// ---- Figures

double powerDb(const Audio& audio, std::size_t uFrom, std::size_t uTo) {
  return 10 * std::log10(meanSquare(audio, uFrom, uTo) + 1e-3);
}

double erle(const Audio& mic, const Audio& out, const Audio& echo, std::size_t uFrom, std::size_t uTo) {
  constexpr std::size_t kFrame = 80;
  constexpr double kEcho = 30 * 30;  // mean square from which on there is echo
  double dMic = 0;
  double dOut = 0;
  for (std::size_t i = uFrom; i + kFrame <= std::min(uTo, out.size()); i += kFrame) {
    if (meanSquare(echo, i, i + kFrame) < kEcho) continue;
    dMic += meanSquare(mic, i, i + kFrame);
    dOut += meanSquare(out, i, i + kFrame);
  }
  return 10 * std::log10((dMic + 1e-3) / (dOut + 1e-3));
}

Audio aligned(const Audio& clean, const Audio& out, std::size_t uFrom, std::size_t uTo) {
  constexpr long kFurthest = 500;
  double dBest = 0;
  long lBest = 0;
  for (long lLag = -kFurthest; lLag <= kFurthest; ++lLag) {
    double dSum = 0;
    for (std::size_t i = uFrom; i < std::min({uTo, clean.size(), out.size()}); ++i) {
      const long lAt = static_cast<long>(i) + lLag;
      if (lAt >= 0 && lAt < static_cast<long>(out.size()))
        dSum += double{clean[i]} * out[static_cast<std::size_t>(lAt)];
    }
    if (dSum > dBest) {
      dBest = dSum;
      lBest = lLag;
    }
  }
  Audio moved(out.size(), 0);
  for (std::size_t i = 0; i < out.size(); ++i) {
    const long lAt = static_cast<long>(i) + lBest;
    if (lAt >= 0 && lAt < static_cast<long>(out.size())) moved[i] = out[static_cast<std::size_t>(lAt)];
  }
  return moved;
}

double passedDb(const Audio& clean, const Audio& out, std::size_t uFrom, std::size_t uTo) {
  constexpr std::size_t kFrame = 256;
  constexpr double kTalk = 300.0 * 300;
  constexpr double kLeast = 1e-3;  // -60 dB
  double dSum = 0;
  int iFrames = 0;
  for (std::size_t i = uFrom; i + kFrame <= std::min({uTo, clean.size(), out.size()}); i += kFrame) {
    double dCross = 0;
    double dClean = 0;
    for (std::size_t k = i; k < i + kFrame; ++k) {
      dCross += double{clean[k]} * out[k];
      dClean += double{clean[k]} * clean[k];
    }
    if (dClean < kTalk * kFrame) continue;
    dSum += 20 * std::log10(std::max(kLeast, dCross / dClean));
    ++iFrames;
  }
  return iFrames > 0 ? dSum / iFrames : 0;
}

// ---- Intelligibility

namespace {

constexpr int kStoiRate = 10000;
constexpr std::size_t kStoiFrame = 256;
constexpr std::size_t kStoiLength = 512;
constexpr std::size_t kBands = 15;
constexpr std::size_t kSegment = 30;

Audio resampled(const Audio& in, int iRate, std::size_t uFrom, std::size_t uTo) {
  const double dStep = static_cast<double>(iRate) / kStoiRate;
  const double dCut = std::min(1.0, 1 / dStep);
  const auto uCount = static_cast<std::size_t>(static_cast<double>(uTo - uFrom) / dStep);
  constexpr int kHalf = 24;
  Audio out(uCount, 0);
  for (std::size_t i = 0; i < uCount; ++i) {
    const double dAt = static_cast<double>(uFrom) + static_cast<double>(i) * dStep;
    double dSum = 0;
    for (long k = static_cast<long>(dAt) - kHalf; k <= static_cast<long>(dAt) + kHalf; ++k) {
      if (k < 0 || k >= static_cast<long>(in.size())) continue;
      const double d = (dAt - static_cast<double>(k)) * dCut;
      const double dSinc = std::abs(d) < 1e-9 ? 1 : std::sin(std::numbers::pi * d) / (std::numbers::pi * d);
      dSum += dCut * dSinc *
              (0.5 + 0.5 * std::cos(std::numbers::pi * (dAt - static_cast<double>(k)) / (kHalf + 1))) *
              in[static_cast<std::size_t>(k)];
    }
    out[i] = static_cast<float>(dSum);
  }
  return out;
}

void fft(std::vector<std::complex<double>>& v) {
  const std::size_t n = v.size();
  for (std::size_t i = 1, j = 0; i < n; ++i) {
    std::size_t uBit = n >> 1;
    for (; (j & uBit) != 0; uBit >>= 1) j ^= uBit;
    j ^= uBit;
    if (i < j) std::swap(v[i], v[j]);
  }
  for (std::size_t uLength = 2; uLength <= n; uLength *= 2) {
    const std::complex<double> step = std::polar(1.0, -2 * std::numbers::pi / static_cast<double>(uLength));
    for (std::size_t i = 0; i < n; i += uLength) {
      std::complex<double> w = 1;
      for (std::size_t k = 0; k < uLength / 2; ++k, w *= step) {
        const auto t = w * v[i + k + uLength / 2];
        v[i + k + uLength / 2] = v[i + k] - t;
        v[i + k] += t;
      }
    }
  }
}

using BandFrames = std::vector<std::array<double, kBands>>;

BandFrames bandsOf(const Audio& audio, const std::vector<std::size_t>& frames) {
  BandFrames bands;
  for (const std::size_t uStart : frames) {
    std::vector<std::complex<double>> v(kStoiLength);
    for (std::size_t i = 0; i < kStoiFrame; ++i) {
      const double dWindow =
          0.5 - 0.5 * std::cos(2 * std::numbers::pi * static_cast<double>(i + 1) / (kStoiFrame + 1));
      v[i] = dWindow * audio[uStart + i];
    }
    fft(v);
    std::array<double, kBands> band{};
    for (std::size_t b = 0; b < kBands; ++b) {
      const double dCentre = 150 * std::pow(2.0, static_cast<double>(b) / 3);
      const auto bin = [&](double dOctaves) {
        return static_cast<std::size_t>(
            std::lround(dCentre * std::pow(2, dOctaves) * kStoiLength / kStoiRate));
      };
      for (std::size_t k = bin(-1.0 / 6); k < bin(1.0 / 6); ++k) band[b] += std::norm(v[k]);
      band[b] = std::sqrt(band[b]);
    }
    bands.push_back(band);
  }
  return bands;
}

// Frames within 40 dB of the loudest.
std::vector<std::size_t> activeFrames(const Audio& clean) {
  std::vector<std::pair<std::size_t, double>> all;
  double dLargest = 0;
  for (std::size_t i = 0; i + kStoiFrame <= clean.size(); i += kStoiFrame / 2) {
    all.emplace_back(i, meanSquare(clean, i, i + kStoiFrame));
    dLargest = std::max(dLargest, all.back().second);
  }
  std::vector<std::size_t> frames;
  for (const auto& [uStart, dPower] : all) {
    if (dPower > dLargest * 1e-4) frames.push_back(uStart);
  }
  return frames;
}

double correlation(const std::array<double, kSegment>& a, const std::array<double, kSegment>& b) {
  double ma = 0, mb = 0;
  for (std::size_t i = 0; i < kSegment; ++i) {
    ma += a[i] / kSegment;
    mb += b[i] / kSegment;
  }
  double ab = 0, aa = 0, bb = 0;
  for (std::size_t i = 0; i < kSegment; ++i) {
    ab += (a[i] - ma) * (b[i] - mb);
    aa += (a[i] - ma) * (a[i] - ma);
    bb += (b[i] - mb) * (b[i] - mb);
  }
  return ab / std::sqrt(aa * bb + 1e-12);
}

}  // namespace

double stoi(const Audio& clean, const Audio& out, int iRate, std::size_t uFrom, std::size_t uTo) {
  const Audio x = resampled(clean, iRate, uFrom, uTo);
  const Audio y = resampled(out, iRate, uFrom, uTo);
  const auto frames = activeFrames(x);
  const BandFrames X = bandsOf(x, frames);
  const BandFrames Y = bandsOf(y, frames);
  double dSum = 0;
  int iCount = 0;
  const double dClip = 1 + std::pow(10, 15.0 / 20);
  for (std::size_t m = kSegment; m <= X.size(); ++m) {
    for (std::size_t b = 0; b < kBands; ++b) {
      std::array<double, kSegment> xs, ys;
      double nx = 0, ny = 0;
      for (std::size_t i = 0; i < kSegment; ++i) {
        xs[i] = X[m - kSegment + i][b];
        ys[i] = Y[m - kSegment + i][b];
        nx += xs[i] * xs[i];
        ny += ys[i] * ys[i];
      }
      const double dAlpha = std::sqrt(nx / (ny + 1e-12));
      for (std::size_t i = 0; i < kSegment; ++i) ys[i] = std::min(dAlpha * ys[i], dClip * xs[i]);
      dSum += correlation(xs, ys);
      ++iCount;
    }
  }
  return iCount > 0 ? dSum / iCount : 0;
}
