// The same input gives the same output, whatever the channel did before and whatever other threads do.
#include <thread>

#include "tests/engine/EngineFixture.h"

namespace {

class RepeatabilityTest : public EngineTest {
 protected:
  struct sRun {
    Samples out;
    std::string digits;
    std::vector<int> piFigures;  // everything that a frame reports
    bool operator==(const sRun&) const = default;
  };
  // Noise, words and a key, each channel its own.
  static Samples material(int iChannel, int iRate) {
    const auto uSecond = static_cast<std::size_t>(iRate);
    const auto uSeed = static_cast<unsigned>(iChannel);
    Samples in = silence(uSecond);
    for (int i = 0; i < 4; ++i) {
      in += voice(uSecond / 2, iRate, 100 + 20 * iChannel + 9 * i, 9000);
      in += silence(uSecond / 2);
    }
    in += tone(uSecond / 5, 770.0 * 8000 / iRate, 4000, 1336.0 * 8000 / iRate, 4000);
    in += silence(uSecond / 5);
    return mixed(in, gaussianNoise(in.size(), 100 + 50 * iChannel, uSeed));
  }
  static sRun run(std::uint16_t uChannel) {
    sKestrovaInit init = defaultInit();
    init.bDoAGC = init.bCheckDTMF = 1;
    init.iSampleRate = uChannel % 2 == 0 ? 8000 : 16000;
    EXPECT_EQ(KestrovaInit(uChannel, &init), 0);
    sRun all;
    all.out = process(uChannel, material(uChannel, init.iSampleRate),
                      static_cast<std::size_t>(init.iSampleRate / 250), [&](const sKestrovaFrameResult& r) {
                        all.piFigures.insert(all.piFigures.end(),
                                             {r.iOutBytes, r.iSpeech, r.iConfidentVoice, r.iDtmf,
                                              r.iNoiseLevel, r.iSpeakerMatch, r.iGainPercent});
                      });
    char pcDigits[100];
    EXPECT_EQ(KestrovaGetLastDTMFBuffer(uChannel, pcDigits, sizeof pcDigits), 0);
    all.digits = pcDigits;
    return all;
  }
};

TEST_F(RepeatabilityTest, NeitherThePastNorOtherThreadsChangeTheOutput) {
  std::vector<sRun> first;
  for (std::uint16_t c = 0; c < 4; ++c) first.push_back(run(c));
  EXPECT_EQ(first[0].digits, "5");
  std::vector<sRun> together(4);
  std::vector<std::thread> threads;
  for (std::uint16_t c = 0; c < 4; ++c)
    threads.emplace_back([&together, c] { together[c] = run(c); });  // on channels that have been used
  for (std::thread& thread : threads) thread.join();
  for (std::size_t c = 0; c < 4; ++c) EXPECT_EQ(together[c], first[c]) << c;
}

}  // namespace
