// DTMF digits in a channel's input.
#include <string>

#include "engine/MyDtmf.h"
#include "tests/engine/EngineFixture.h"

namespace {

class DtmfTest : public EngineTest {
 protected:
  DtmfTest() { open(); }
  static void open() {
    sKestrovaInit init = defaultInit();
    init.bCheckDTMF = 1;
    EXPECT_EQ(KestrovaInit(0, &init), 0);
  }
  static Samples key(char cDigit, std::size_t uMs, double dRow = 4000, double dColumn = 4000,
                     double dScale = 1) {
    for (int r = 0; r < 4; ++r) {
      for (int c = 0; c < 4; ++c) {
        if (MyDtmf::row_col_ascii_codes[r][c] != cDigit) continue;
        return tone(8 * uMs, dScale * MyDtmf::freqs[static_cast<std::size_t>(r)], dRow,
                    dScale * MyDtmf::freqs[static_cast<std::size_t>(4 + c)], dColumn);
      }
    }
    ADD_FAILURE() << cDigit;
    return {};
  }
  // What the channel has heard after the keys, with 100 ms before and after each.
  static std::string heard(const Samples& in) {
    Samples stream = silence(800);
    stream += in;
    stream += silence(1600);
    process(0, stream);
    return digits();
  }
  static std::string digits() {
    char pcText[100];
    EXPECT_EQ(KestrovaGetLastDTMFBuffer(0, pcText, sizeof pcText), 0);
    return pcText;
  }
};

TEST_F(DtmfTest, AllSixteenDigitsAreHeardOnce) {
  Samples in;
  const std::string all = "1234567890*#ABCD";
  for (const char c : all) {
    in += key(c, 100);
    in += silence(800);
  }
  EXPECT_EQ(heard(in), all);
}

TEST_F(DtmfTest, ShortAndTwistedAndWeakAndImpureKeysAreNot) {
  struct {
    Samples in;
    const char* pcHeard;
  } const pCases[] = {
      {key('5', 40), ""},
      {key('5', 75), ""},
      {key('5', 100), "5"},
      {key('5', 1500), "5"},
      {key('5', 200, 4000, 6000), "5"},  // column 3.5 dB above the row
      {key('5', 200, 4000, 6800), ""},   // 4.6 dB
      {key('5', 200, 4000, 1700), "5"},  // 7.4 dB below
      {key('5', 200, 4000, 1500), ""},   // 8.5 dB
      {key('5', 200, 800, 800), "5"},    // from -33 dB on: below, a tone's own leakage fails the purity
      {key('5', 200, 12, 12), ""},
      {mixed(key('5', 200), tone(1600, 852, 2000)), ""},  // a third frequency 6 dB below
      {mixed(key('5', 200), tone(1600, 941, 200)), "5"},  // 26 dB below
      {mixed(key('5', 200), gaussianNoise(1600, 150, 2)), "5"},
      {key('5', 200, 4000, 4000, 1.015), "5"},  // ITU-T Q.24: 1.5 % off must be heard,
      {key('9', 200, 4000, 4000, 0.985), "9"},
      {key('5', 200, 4000, 4000, 1.035), ""},  // 3.5 % must not
      {key('5', 200, 4000, 4000, 0.965), ""},
  };
  for (const auto& row : pCases) {
    open();
    EXPECT_EQ(heard(row.in), row.pcHeard) << &row - pCases;
  }
}

TEST_F(DtmfTest, TheTextGrowsWithinTwoSecondsAndStartsOverAfterThem) {
  EXPECT_EQ(heard(key('1', 100)), "1");
  EXPECT_EQ(heard(key('1', 100)), "1") << "the same key again within two seconds";
  EXPECT_EQ(heard(key('2', 100)), "12");
  EXPECT_EQ(heard(key('1', 100)), "121");
  process(0, silence(16000));
  EXPECT_EQ(heard(key('1', 100)), "1");
}

TEST_F(DtmfTest, TheTextHoldsNinetyNineDigits) {
  Samples in;
  for (int i = 0; i < 60; ++i) {
    in += key('1', 100);
    in += silence(480);
    in += key('2', 100);
    in += silence(480);
  }
  const std::string text = heard(in);
  EXPECT_EQ(text.size(), 99U);
  char pcText[100];
  EXPECT_EQ(KestrovaGetLastDTMFBuffer(0, pcText, 99), 1);
  EXPECT_EQ(KestrovaGetLastDTMFBuffer(0, pcText, 100), 0);
  EXPECT_EQ(KestrovaGetLastDTMFBuffer(0, pcText, 0), 1);
}

TEST_F(DtmfTest, ToneAndFiveSecondsAfterItPassUntouched) {
  Samples in = gaussianNoise(24000, 100, 5);
  in += key('7', 200);
  in += gaussianNoise(48000, 100, 6);
  int iFlags = 0;
  const Samples out = process(0, in, 32, [&](const sKestrovaFrameResult& result) { iFlags += result.iDtmf; });
  EXPECT_NEAR(iFlags * 32, 40000 + 1600 - 644, 500);
  EXPECT_TRUE(std::equal(out.begin() + 26000, out.begin() + 24000 + 1600 + 39000, in.begin() + 26000));
  EXPECT_LT(rms(out, 70000, 72000), 30) << "then the background is gated again";
}

// Harmonics near a row and a column frequency, the others between the eight: pure enough for 80 ms.
TEST_F(DtmfTest, VowelsWithFormantsOnAPairHoldNoDigits) {
  for (double dPitch = 80; dPitch < 260; dPitch += 7) {
    open();
    process(0, voice(12000, 8000, dPitch, 26000));
    EXPECT_EQ(digits(), "") << dPitch;
  }
}

TEST_F(DtmfTest, DigitsAreHeardOverAVoiceAndInNoise) {
  for (const char c : std::string("18B0")) {
    open();
    EXPECT_EQ(heard(mixed(key(c, 200, 8000, 8000), voice(1600, 8000, 110, 8000))), std::string(1, c));
    open();
    EXPECT_EQ(heard(mixed(key(c, 200), gaussianNoise(1600, 1800, 3))), std::string(1, c))
        << "4 dB below a tone";
  }
}

TEST_F(DtmfTest, NoiseHoldsNoDigits) {
  for (const double dRms : {30.0, 300.0, 3000.0}) {
    process(0, gaussianNoise(160000, dRms, 9));
    EXPECT_EQ(digits(), "") << dRms;
  }
}

}  // namespace
