// In-band DTMF detection (the tone pairs of ITU-T Q.23) by the Goertzel algorithm, in blocks of 92 samples at
// 8 kHz. 92 samples = 11.5 ms give each frequency a band of about 87 Hz, so that neighbours 73 Hz apart are
// still told from one another by level.
#pragma once

#include <array>
#include <cstdint>
#include <span>

class MyDtmf {
 public:
  static constexpr int kFrequencies = 8;
  static constexpr std::array<int, kFrequencies> freqs{697, 770, 852, 941, 1209, 1336, 1477, 1633};  // Hz
  static constexpr char row_col_ascii_codes[4][5] = {"123A", "456B", "789C", "*0#D"};

  // What a block turned out to be.
  enum Result { kDigit = 0, kTooWeak = 1, kTwisted = 2, kImpure = 3, kIncomplete = 8 };

  MyDtmf();
  void clean();

  // One sample; kIncomplete until it completes a block, then the block's result.
  Result go(std::int16_t sSample);
  // The samples of one cycle. True while a digit is present: it has been confirmed, the latest block held it,
  // and its two tones carry most of what was heard since it began.
  bool insertSampleForCycle(std::span<const std::int16_t> samples);

  [[nodiscard]] char digit() const { return cCandidate; }

 private:
  struct sGoertzel {
    double s1 = 0;
    double s2 = 0;
    double dPower = 0;
    double dCoefficient = 0;  // 2 cos(2 pi f / 8000)
  };

  Result testing();
  [[nodiscard]] Result judge(int& iRow, int& iColumn) const;
  [[nodiscard]] int strongest(int iFirst) const;
  void countDigit(char cDigit);
  [[nodiscard]] bool tonesPrevail() const;

  std::array<sGoertzel, kFrequencies> asState;
  bool bDetected = false;
  char cCandidate = '?';
  int iRunLength = 0;
  int iBlockSamples = 0;
  double dBlockEnergy = 0;  // sum of squares
  // Of the blocks of the current run, in the units of a block's power
  double dRunTones = 0;
  double dRunTotal = 0;
  Result lastBlock = kTooWeak;
};
