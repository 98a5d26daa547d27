#include "engine/MyFilters.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <numbers>
#include <tuple>

#include "engine/MyChannel.h"

namespace {

constexpr int kTwiddles = kMaxTransform - 1;

struct sTwiddle {
  double dCos;
  double dSin;
};

// For every length M = 2, 4, .. 4096 in turn the factors e^(2 pi i k / M), k = 0 .. M/2 - 1; those of length
// M begin at M/2 - 1.
struct sTables {
  std::array<sTwiddle, kTwiddles> ppdMyWrWi;
  std::array<double, 64> ppdMyHanning64;
  std::array<double, 128> ppdMyHanning128;
  std::array<double, 256> ppdMyHanning256;

  sTables() {
    std::size_t u = 0;
    for (int iLength = 2; iLength <= kMaxTransform; iLength *= 2) {
      for (int k = 0; k < iLength / 2; ++k, ++u) {
        const double dAngle = 2 * std::numbers::pi * k / iLength;
        ppdMyWrWi[u] = {std::cos(dAngle), std::sin(dAngle)};
      }
    }
    fill(ppdMyHanning64);
    fill(ppdMyHanning128);
    fill(ppdMyHanning256);
  }

  static void fill(std::span<double> dWindow) {
    for (std::size_t n = 0; n < dWindow.size(); ++n) {
      dWindow[n] = hanning(static_cast<int>(n), static_cast<int>(dWindow.size()));
    }
  }
  static double hanning(int n, int N) { return 0.5 * (1 - std::cos(2 * std::numbers::pi * n / (N - 1))); }

  [[nodiscard]] const double* window(int n) const {
    if (n == 64) return ppdMyHanning64.data();
    if (n == 128) return ppdMyHanning128.data();
    return n == 256 ? ppdMyHanning256.data() : nullptr;
  }
  [[nodiscard]] const sTwiddle* twiddles(int iLength) const {
    return &ppdMyWrWi[static_cast<std::size_t>(iLength / 2 - 1)];
  }
};

const sTables& tables() {
  static const sTables instance;
  return instance;
}

// Smoothing of the power that speech is told by: neighbouring bins on each side, and per frame.
constexpr int kPowerNeighbours = 4;
constexpr double kPowerFollowing = 0.5;
// Mean power of noise whose mean magnitude is 1 (Rayleigh distributed magnitudes).
constexpr double kPowerOfMagnitude = 4 / std::numbers::pi;

// dTo[k]: mean of f over the bins k - kPowerNeighbours .. k + kPowerNeighbours, as far as there are any.
template <typename Function>
void slidingMean(std::span<const double> dFrom, std::span<double> dTo, Function f) {
  const int n = static_cast<int>(dFrom.size());
  double dSum = 0;
  for (int k = 0; k < std::min(kPowerNeighbours, n); ++k) dSum += f(dFrom[static_cast<std::size_t>(k)]);
  for (int k = 0; k < n; ++k) {
    const int iEnters = k + kPowerNeighbours;
    const int iLeaves = k - kPowerNeighbours - 1;
    if (iEnters < n) dSum += f(dFrom[static_cast<std::size_t>(iEnters)]);
    if (iLeaves >= 0) dSum -= f(dFrom[static_cast<std::size_t>(iLeaves)]);
    const int iCount = std::min(iEnters, n - 1) - std::max(iLeaves, -1);
    dTo[static_cast<std::size_t>(k)] = dSum / iCount;
  }
}

void reorderBits(int n, double* pdData) {
  for (int i = 1, j = 0; i < n; ++i) {
    int iBit = n / 2;
    for (; j & iBit; iBit /= 2) j ^= iBit;
    j ^= iBit;
    if (i >= j) continue;
    std::swap(pdData[2 * i], pdData[2 * j]);
    std::swap(pdData[2 * i + 1], pdData[2 * j + 1]);
  }
}

// Radix-2 transform of n complex values; dSign +1 forward, -1 backward.
void transformComplex(int n, double* pdData, double dSign) {
  reorderBits(n, pdData);
  // The first stage's only factor is 1.
  for (int i = 0; i < 2 * n; i += 4) {
    const double dRe = pdData[i + 2];
    const double dIm = pdData[i + 3];
    pdData[i + 2] = pdData[i] - dRe;
    pdData[i + 3] = pdData[i + 1] - dIm;
    pdData[i] += dRe;
    pdData[i + 1] += dIm;
  }
  for (int iLength = 4; iLength <= n; iLength *= 2) {
    const sTwiddle* pTwiddle = tables().twiddles(iLength);
    const int iHalf = iLength / 2;
    for (int iStart = 0; iStart < n; iStart += iLength) {
      for (int k = 0; k < iHalf; ++k) {
        double* pdA = pdData + 2 * (iStart + k);
        double* pdB = pdA + 2 * iHalf;
        const double dSin = dSign * pTwiddle[k].dSin;
        const double dRe = pdB[0] * pTwiddle[k].dCos - pdB[1] * dSin;
        const double dIm = pdB[0] * dSin + pdB[1] * pTwiddle[k].dCos;
        pdB[0] = pdA[0] - dRe;
        pdB[1] = pdA[1] - dIm;
        pdA[0] += dRe;
        pdA[1] += dIm;
      }
    }
  }
}

// Between the transform of n/2 complex values (even samples real, odd samples imaginary) and the spectrum of
// the n reals: X[k] = (Z[k] + Z*[m]) / 2 + w (Z[k] - Z*[m]) / 2i, m = n/2 - k, w = e^(2 pi i k / n) forward;
// backward the same with conj(w) and the sign of the second term turned.
void splitSpectrum(int n, double* pdData, double dSign) {
  const sTwiddle* pTwiddle = tables().twiddles(n);
  for (int k = 1; k <= n / 4; ++k) {
    double* pdA = pdData + 2 * k;
    double* pdB = pdData + (n - 2 * k);
    const double dSumRe = (pdA[0] + pdB[0]) / 2;
    const double dSumIm = (pdA[1] - pdB[1]) / 2;
    const double dDiffRe = (pdA[0] - pdB[0]) / 2;
    const double dDiffIm = (pdA[1] + pdB[1]) / 2;
    // (dDiff) / i = (dDiffIm, -dDiffRe), times the twiddle
    const double dCos = pTwiddle[k].dCos;
    const double dSin = pTwiddle[k].dSin;
    const double dRe = dSign > 0 ? dCos * dDiffIm + dSin * dDiffRe : -dCos * dDiffIm + dSin * dDiffRe;
    const double dIm = dSign > 0 ? dSin * dDiffIm - dCos * dDiffRe : dSin * dDiffIm + dCos * dDiffRe;
    pdA[0] = dSumRe + dRe;
    pdA[1] = dSumIm + dIm;
    if (pdA == pdB) break;
    pdB[0] = dSumRe - dRe;
    pdB[1] = dIm - dSumIm;
  }
}

}  // namespace

// ---- Transform

int MyFilters::executeFFT(int n, double* pdData) {
  const int iLength =
      std::min(kMaxTransform, std::max(4, static_cast<int>(std::bit_ceil(static_cast<unsigned>(n)))));
  std::fill(pdData + n, pdData + iLength, 0.0);
  transformComplex(iLength / 2, pdData, +1);
  splitSpectrum(iLength, pdData, +1);
  const double dZeroRe = pdData[0];
  pdData[0] = dZeroRe + pdData[1];
  pdData[1] = dZeroRe - pdData[1];
  return iLength;
}

void MyFilters::executeIFFT(int n, double* pdData) {
  pdData[1] = pdData[n - 2];
  const double dZeroRe = pdData[0];
  pdData[0] = (dZeroRe + pdData[1]) / 2;
  pdData[1] = (dZeroRe - pdData[1]) / 2;
  splitSpectrum(n, pdData, -1);
  transformComplex(n / 2, pdData, -1);
}

// ---- Loading

int MyFilters::buildInput(bool bFullRate, int iFirst, int iLast) {
  const InputData& input = *pMyChannel->pInputData;
  const int iFactor = bFullRate ? input.rateFactor() : 1;
  const int n = (iLast - iFirst + 1) * iFactor;
  double* pdTo = pdWork.data();
  // What is in the ring is one stretch of the wanted one; it may wrap once.
  const int iFrom = std::max(iFirst, input.oldestTime());
  const int iBehind = std::max(iFrom, std::min(iLast + 1, input.getNumValues()));
  std::fill_n(pdTo, n, 0.0);
  pdTo += (iFrom - iFirst) * iFactor;
  for (int t = iFrom; t < iBehind;) {
    const int iRun = std::min(iBehind - t, kAnalysisRingSamples - t % kAnalysisRingSamples);
    const std::int16_t* psFrom = bFullRate ? input.fullRateSamples(t) : input.analysisSamples(t);
    pdTo = std::copy_n(psFrom, iRun * iFactor, pdTo);
    t += iRun;
  }
  return n;
}

int MyFilters::calcFFTWithHanning(int n) {
  const double* pdWindow = tables().window(n);
  for (int i = 0; i < n; ++i) {
    pdWork[static_cast<std::size_t>(i)] *= pdWindow != nullptr ? pdWindow[i] : sTables::hanning(i, n);
  }
  return executeFFT(n, pdWork.data());
}

int MyFilters::calcFFTWithHanningCyclicInput(std::span<const std::int16_t> psRing, std::size_t uPosition,
                                             int n) {
  for (int i = 0; i < n; ++i) {
    pdWork[static_cast<std::size_t>(i)] = psRing[uPosition];
    if (++uPosition == psRing.size()) uPosition = 0;
  }
  return calcFFTWithHanning(n);
}

// ---- Spectral subtraction

void MyFilters::initializeSpectralNoise(sSpectralNoiseType& noise) {
  noise.dNoise.fill(0);
  noise.dCandidate.fill(0);
  noise.iBelow.fill(0);
  noise.dPreviousGain.fill(0.5);
  noise.dPower.fill(0);
  noise.iSubtractFactor = 0;
  noise.iLastBin = -1;
  noise.iLastNoisePosition = sSpectralNoiseType::kNoEstimate;
  noise.iNoiseLevel = 0;
  noise.bNoisy = false;
}

void MyFilters::addMagnitudes(int n, std::span<double> dSpectrum) const {
  dSpectrum[0] += std::abs(pdWork[0]);
  for (int k = 1; k < n / 2; ++k) {
    const auto u = static_cast<std::size_t>(k);
    dSpectrum[u] += std::sqrt(pdWork[2 * u] * pdWork[2 * u] + pdWork[2 * u + 1] * pdWork[2 * u + 1]);
  }
}

// Zeros, as a muted line sends them, are no background; nor is what the echo stage has lowered.
bool MyFilters::tellsBackground(int iFirst, int iLast, int iBlocks) const {
  const CycleInformation& cycles = *pMyChannel->pCycleInformation;
  return iFirst > pMyChannel->iLastEchoPosition &&
         cycles.calcAmp(cycles.cycleOf(iLast), iBlocks) > CycleInformation::kNoAmp;
}

// The background may have become quieter: a bin that stays below its noise for a while pulls the noise down.
void MyFilters::followDown(std::span<const double> dMagnitude, bool bFollow,
                           sSpectralNoiseType& noise) const {
  for (std::size_t k = 0; k < dMagnitude.size(); ++k) {
    if (!bFollow || noise.dNoise[k] <= dMagnitude[k]) {
      noise.iBelow[k] = 0;
      continue;
    }
    noise.dCandidate[k] = noise.iBelow[k] == 0 ? dMagnitude[k] : std::max(noise.dCandidate[k], dMagnitude[k]);
    if (++noise.iBelow[k] <= iTimeConstant) continue;
    noise.dNoise[k] = noise.dCandidate[k];
    noise.iBelow[k] = 0;
  }
}

void MyFilters::computeGains(std::span<const double> dMagnitude, sSpectralNoiseType& noise) {
  const double dFactor = static_cast<double>(noise.iSubtractFactor) / kUnityQ7;
  for (std::size_t k = 0; k < dMagnitude.size(); ++k) {
    const double dGain = std::max(0.0, 1 - dFactor * noise.dNoise[k] / std::max(1.0, dMagnitude[k]));
    pdGain[k] = (dGain + noise.dPreviousGain[k]) / 2;
    noise.dPreviousGain[k] = dGain;
  }
}

// Neighbouring bins share a gain, so that single bins do not ring ("musical noise"). The lowest bins, where
// the voice's fundamental lies, all take the first average, and the highest the last.
void MyFilters::smoothGains(int iBins, int iBlocks) {
  const int iSpan = std::min(iBlocks < 4 ? 7 : 15, iBins - 1);
  const int iLow = std::min(iSpan + 1, iBins);
  double dSum = 0;
  for (int k = 1; k <= iSpan; ++k) dSum += pdGain[static_cast<std::size_t>(k)];
  int iFirst = 1;  // the average covers iFirst .. iFirst + iSpan - 1
  for (int k = 0; k < iBins; ++k) {
    const int iWanted = std::clamp(k - iSpan / 2, 1, iBins - iSpan);
    while (k >= iLow && iFirst < iWanted) {
      dSum += pdGain[static_cast<std::size_t>(iFirst + iSpan)] - pdGain[static_cast<std::size_t>(iFirst)];
      ++iFirst;
    }
    pdSmoothGain[static_cast<std::size_t>(k)] = dSum / iSpan;
  }
}

// The power of each bin, averaged with its neighbours' and over the latest frames.
void MyFilters::followPower(std::span<const double> dMagnitude, sSpectralNoiseType& noise) {
  slidingMean(dMagnitude, pdGain, [](double dValue) { return dValue * dValue; });
  for (std::size_t k = 0; k < dMagnitude.size(); ++k) {
    noise.dPower[k] += kPowerFollowing * (pdGain[k] - noise.dPower[k]);
  }
}

// What the subtraction makes of a frame is right on average and for pauses. In speech it takes too much: the
// average over 15 bins lowers a voice's harmonics with what lies between them, and the mean of two frames
// lowers every beginning. So in speech each bin keeps at least the part of its power that the background does
// not explain (Wiener's rule on the smoothed power).
void MyFilters::protectSpeech(int iBins, const sProtection& protection, const sSpectralNoiseType& noise) {
  const std::span dNoise(noise.dNoise.data(), static_cast<std::size_t>(iBins));
  slidingMean(dNoise, pdGain, [](double dValue) { return kPowerOfMagnitude * dValue * dValue; });
  const double dFactor = protection.dOversubtraction * noise.iSubtractFactor / kUnityQ7;
  for (std::size_t k = 0; k < dNoise.size(); ++k) {
    const double dSpeech = 1 - dFactor * pdGain[k] / std::max(1.0, noise.dPower[k]);
    pdSmoothGain[k] = std::max(pdSmoothGain[k], dSpeech);
  }
}

void MyFilters::subtractNoise(std::span<const double> dMagnitude, int iBlocks, const sProtection& protection,
                              sSpectralNoiseType& noise) {
  const int iBins = static_cast<int>(dMagnitude.size());
  computeGains(dMagnitude, noise);
  smoothGains(iBins, iBlocks);
  if (protection.dOversubtraction > 0) protectSpeech(iBins, protection, noise);
  pdWork[0] *= std::max(pdSmoothGain[0], protection.dLeastGain);
  for (std::size_t k = 1; k < dMagnitude.size(); ++k) {
    const double dGain = std::max(pdSmoothGain[k], protection.dLeastGain);
    pdWork[2 * k] *= dGain;
    pdWork[2 * k + 1] *= dGain;
  }
}

bool MyFilters::separates() const {
  const MyChannel& channel = *pMyChannel;
  if (channel.bIsAecChannel || !channel.pSourceSeparation || !channel.pFftSchema->validEntry()) return false;
  if (channel.psSbt[0] && channel.psSbt[0]->isTesting()) return false;
  return channel.usesLearnedVoice() || channel.pSourceSeparation->isActive();
}

void MyFilters::separateVoice(int iLength, int iFirst, int iLast) {
  const CycleInformation& cycles = *pMyChannel->pCycleInformation;
  SourceSeparation& separation = *pMyChannel->pSourceSeparation;
  for (int iTime = iFirst; iTime < iLast; iTime += kCycleSamples) {
    const cHandle cycle = cycles.cycleOf(iTime);
    if (cycle >= 0) separation.analyzeDuringCleaning(cycle);
  }
  separation.separate(std::span(pdWork).first(static_cast<std::size_t>(iLength)), iLength, iFirst, iLast);
}

int MyFilters::calcCleanFFTSubstractingNoise(int iFirst, int iBlocks, const sProtection& protection,
                                             sSpectralNoiseType& noise) {
  const int iLast = iFirst + kCycleSamples * iBlocks - 1;
  const int n = buildInput(true, iFirst, iLast);
  const int iLength = calcFFTWithHanning(n);
  const std::span dMagnitude(pdMagnitude.data(), static_cast<std::size_t>(iLength / 2));
  std::fill(dMagnitude.begin(), dMagnitude.end(), 0.0);
  addMagnitudes(iLength, dMagnitude);
  for (double& dValue : dMagnitude) dValue = std::max(dValue, 1.0);
  followPower(dMagnitude, noise);
  const bool bSeparates = separates();
  if (noise.iSubtractFactor >= 2 || bSeparates) {
    if (noise.hasEstimate()) followDown(dMagnitude, tellsBackground(iFirst, iLast, iBlocks), noise);
    subtractNoise(dMagnitude, iBlocks, protection, noise);
  }
  if (bSeparates) separateVoice(iLength, iFirst, iLast);
  return iLength;
}

std::span<const double> MyFilters::calcCleanIFFTSubstractingNoise(int iLength, int n) {
  executeIFFT(iLength, pdWork.data());
  const double dScale = 2.0 / iLength;
  for (int i = 0; i < n; ++i) {
    double& dValue = pdWork[static_cast<std::size_t>(i)];
    dValue = std::trunc(
        std::clamp(dValue * dScale, -static_cast<double>(kSampleLimit), static_cast<double>(kSampleLimit)));
  }
  return std::span(pdWork).first(static_cast<std::size_t>(n));
}

// ---- Histograms

void MyFilters::buildFFTNative(std::span<double> dSpectrum, int iFirst, int iLast) {
  executeFFT(buildInput(false, iFirst, iLast), pdWork.data());
  dSpectrum[0] = std::abs(pdWork[0]);
  for (std::size_t k = 1; k < dSpectrum.size(); ++k)
    dSpectrum[k] = std::hypot(pdWork[2 * k], pdWork[2 * k + 1]);
}

void MyFilters::buildFFTHistogram(Histogram& histogram, int iFirst, int iLast) {
  std::array<double, std::tuple_size_v<Histogram>> dSpectrum;
  buildFFTNative(dSpectrum, iFirst, iLast);
  const double dLargest = std::max(1.0, *std::max_element(dSpectrum.begin() + 1, dSpectrum.begin() + 7));
  histogram[0] = 0;
  for (std::size_t k = 1; k < histogram.size(); ++k) {
    histogram[k] = static_cast<int>(dSpectrum[k] * 100 / dLargest);
  }
}

bool MyFilters::matchFFTHistograms(bool bStrict, const Histogram& a, const Histogram& b) {
  for (std::size_t k = 1; k < a.size(); ++k) {
    const double dTolerance =
        bStrict ? std::max(5.0, 0.05 * std::max(a[k], b[k])) : std::max(20.0, 0.2 * std::max(a[k], b[k]));
    if (std::abs(a[k] - b[k]) > dTolerance) return false;
  }
  return true;
}

bool MyFilters::validateFFTHistogram(bool bStrict, const Histogram& h) const {
  const sSpeakerData& speaker = *pMyChannel->psSpeakerData;
  const std::span learned(speaker.histograms.data(), static_cast<std::size_t>(speaker.iHistograms));
  return std::any_of(learned.begin(), learned.end(),
                     [&](const Histogram& known) { return matchFFTHistograms(bStrict, h, known); });
}
