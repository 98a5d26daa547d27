// Real phones talk through Quorvel, and each hears the other.
#include "tests/calls/support/PhonePair.h"

namespace {

constexpr const char* kPcmu = "PCMU/8000/1";
constexpr const char* kPcma = "PCMA/8000/1";
constexpr const char* kG722 = "G722/16000/1";
constexpr Seconds kTalk(4.5);

struct Codecs {
  const char* name;
  const char* caller;
  const char* callee;
  // What each half second must reach. Less where one leg has 8 kHz and the other 16: sound doubled by linear
  // interpolation loses some of its treble and moves by half a sample.
  double correlation;
};

void PrintTo(const Codecs& codecs, std::ostream* out) {
  *out << codecs.name;
}

class PhoneCallTest : public PhonesFixture, public ::testing::WithParamInterface<Codecs> {};

TEST_P(PhoneCallTest, BothHearEachOther) {
  const Codecs& codecs = GetParam();
  ASSERT_NO_FATAL_FAILURE(start({{"StatisticsFile", "statistics"}}));
  PhonePair phones(scratch.path(), ports,
                   {.callerCodec = codecs.caller, .calleeCodec = codecs.callee, .calleePort = ports.pbx()});
  ASSERT_NO_FATAL_FAILURE(phones.expectReady());
  ASSERT_NO_FATAL_FAILURE(phones.talk(*phones.first, *phones.second, calleeUri(), kTalk));
  phones.expectBothHeard(codecs.correlation);

  const auto statistics = [&] { return readFile(quorvel->bin() / "statistics"); };
  EXPECT_TRUE(eventually([&] { return occurrences(statistics(), "Closed session") > 0; }, Seconds(3)));
  EXPECT_EQ(occurrences(statistics(), "Packet Loss (0.00%)"), 2 * occurrences(statistics(), "Closed session"))
      << statistics();
  EXPECT_EQ(quorvel->logCount(" ERROR in "), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Codecs, PhoneCallTest,
    ::testing::Values(Codecs{"Pcmu", kPcmu, kPcmu, 0.99}, Codecs{"Pcma", kPcma, kPcma, 0.99},
                      Codecs{"G722", kG722, kG722, 0.99}, Codecs{"PcmuToPcma", kPcmu, kPcma, 0.99},
                      Codecs{"PcmaToPcmu", kPcma, kPcmu, 0.99}, Codecs{"G722ToPcma", kG722, kPcma, 0.9}),
    [](const auto& row) { return std::string(row.param.name); });

}  // namespace
