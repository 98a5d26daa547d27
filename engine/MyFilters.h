// The engine's Fourier transform and the spectral work done with it.
//
// The transform of n real values, n a power of two up to 4096, is unnormalised: a constant input a gives a x
// n in element 0. Packing: element 0 is bin 0, element 1 is bin n/2, elements 2k and 2k + 1 are the real and
// imaginary part of bin k, which is the sum of x[j] e^(+2 pi i j k / n).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "engine/EngineUnits.h"
#include "engine/ZeroedArray.h"

class MyChannel;

inline constexpr int kMaxTransform = 4096;
inline constexpr int kMaxNoiseBins = 1024;

// The background's spectrum and how strongly it is taken off. One entry per bin of the channel's frame.
struct sSpectralNoiseType {
  std::array<double, kMaxNoiseBins> dNoise;        // magnitude
  std::array<double, kMaxNoiseBins> dCandidate;    // largest magnitude since the bin fell below the noise
  std::array<std::int32_t, kMaxNoiseBins> iBelow;  // frames since then
  std::array<double, kMaxNoiseBins> dPreviousGain;
  std::array<double, kMaxNoiseBins> dPower;  // of the signal, smoothed over frames and neighbouring bins
  int iSubtractFactor;                       // Q7: part of the noise that is taken off
  int iLastBin;                              // of the estimate; -1 before any
  int iLastNoisePosition;  // sample time of the latest stretch of noise; kNoEstimate before any
  int iNoiseLevel;         // its spread
  bool bNoisy;             // the background is far below the speaker: nothing needs taking off

  static constexpr int kNoEstimate = -160;
  [[nodiscard]] bool hasEstimate() const { return iLastNoisePosition != kNoEstimate; }
};

// What is kept from the subtraction in a frame.
struct sProtection {
  double dLeastGain = 0;  // of any bin
  // In speech: how much of the background's power counts as explained by it, times the part that is taken
  // off. 0 outside speech, where no bin has a share of speech.
  double dOversubtraction = 0;
};

class MyFilters {
 public:
  void init(MyChannel* pChannel) { pMyChannel = pChannel; }

  // Frames for which a bin has to stay below the noise before the noise follows it down.
  void setNoiseTimeConstant(int iFrames) { iTimeConstant = iFrames; }
  static void initializeSpectralNoise(sSpectralNoiseType& noise);

  // Transforms in place the first n values, padded with zeros to a power of two, whose value is returned. The
  // array holds that many.
  static int executeFFT(int n, double* pdData);
  // The inverse, n a power of two; returns n / 2 times the time signal. Bin n/2 is replaced by the real part
  // of bin n/2 - 1.
  static void executeIFFT(int n, double* pdData);

  // Loads the samples iFirst..iLast (sample times) into the work array, from the full-rate ring or the
  // analysis ring; samples that are not in the ring are 0. Returns their number.
  int buildInput(bool bFullRate, int iFirst, int iLast);
  // Loads n values of a ring from a position on, windows and transforms them; returns the transform's length.
  int calcFFTWithHanningCyclicInput(std::span<const std::int16_t> psRing, std::size_t uPosition, int n);
  // Windows the n loaded values and transforms them; returns the transform's length.
  int calcFFTWithHanning(int n);

  // Transforms the windowed frame of kCycleSamples x iBlocks x rate factor samples that starts at a sample
  // time and takes the background off; returns the transform's length. No bin is lowered below dLeastGain,
  // nor, in speech, further than its share of speech allows.
  int calcCleanFFTSubstractingNoise(int iFirst, int iBlocks, const sProtection& protection,
                                    sSpectralNoiseType& noise);
  // The first n samples of what a transform of that length has become, to be overlapped by half with the
  // frames beside it. Valid until the work array is used again.
  std::span<const double> calcCleanIFFTSubstractingNoise(int iLength, int n);

  // Whether the learned voice is told from other sound in the frames that are cleaned now.
  [[nodiscard]] bool separates() const;

  // Adds the magnitudes of the present transform of length n to a spectrum.
  void addMagnitudes(int n, std::span<double> dSpectrum) const;

  // Magnitudes of the first bins of the analysis samples iFirst..iLast, without a window.
  void buildFFTNative(std::span<double> dSpectrum, int iFirst, int iLast);
  // Coarse spectral shapes for learning: magnitudes of bins 1..6 in percent of the largest.
  using Histogram = std::array<std::int32_t, 7>;
  void buildFFTHistogram(Histogram& histogram, int iFirst, int iLast);
  [[nodiscard]] static bool matchFFTHistograms(bool bStrict, const Histogram& a, const Histogram& b);
  // Whether h matches one of the channel's learned histograms.
  [[nodiscard]] bool validateFFTHistogram(bool bStrict, const Histogram& h) const;

 private:
  [[nodiscard]] bool tellsBackground(int iFirst, int iLast, int iBlocks) const;
  void followDown(std::span<const double> dMagnitude, bool bFollow, sSpectralNoiseType& noise) const;
  void computeGains(std::span<const double> dMagnitude, sSpectralNoiseType& noise);
  void smoothGains(int iBins, int iBlocks);
  void followPower(std::span<const double> dMagnitude, sSpectralNoiseType& noise);
  void protectSpeech(int iBins, const sProtection& protection, const sSpectralNoiseType& noise);
  void subtractNoise(std::span<const double> dMagnitude, int iBlocks, const sProtection& protection,
                     sSpectralNoiseType& noise);
  void separateVoice(int iLength, int iFirst, int iLast);

  MyChannel* pMyChannel = nullptr;
  int iTimeConstant = 5;
  std::array<double, kMaxTransform> pdWork;
  std::array<double, kMaxNoiseBins> pdMagnitude;
  std::array<double, kMaxNoiseBins> pdGain;
  std::array<double, kMaxNoiseBins> pdSmoothGain;
};
