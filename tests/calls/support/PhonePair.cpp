#include "tests/calls/support/PhonePair.h"

#include <algorithm>
#include <array>

namespace {

constexpr const char* kFirstText =
    "The quick brown fox jumps over the lazy dog while seven wizards juggle glass boxes of jam, and nobody "
    "at all "
    "in the village seems to mind the noise.";
constexpr const char* kSecondText =
    "Far away on the other side of the river a small boat waits for the evening tide; its owner counts the "
    "stars, "
    "one after the other, and falls asleep.";

int rateOf(const std::string& codec) {
  return codec.starts_with("G722") ? 16000 : 8000;
}

Sound repeated(const Sound& sound, int times) {
  Sound result{.rate = sound.rate, .samples = {}};
  for (int i = 0; i < times; ++i)
    result.samples.insert(result.samples.end(), sound.samples.begin(), sound.samples.end());
  return result;
}

// A phone's very first sounds may be lost or repeated while both ends get going, so one piece in eight may
// fail.
void expectHeard(const Sound& played, const Sound& heard, double correlation, double beginsWithin = 0) {
  const std::vector<Match> all = matches(played, heard, beginsWithin);
  EXPECT_GE(all.size(), beginsWithin > 0 ? 3U : 5U) << heard.seconds() << " s heard";
  const auto good = std::count_if(all.begin(), all.end(),
                                  [&](const Match& match) { return match.correlation >= correlation; });
  EXPECT_GE(static_cast<std::size_t>(good), std::min(all.size() * 7 / 8, all.size() - 1));
  EXPECT_GE(medianCorrelation(all), correlation);
  if (::testing::Test::HasFailure()) {
    for (const Match& match : all)
      std::printf("at %.1f s: correlation %.4f, %.4f s late\n", match.second, match.correlation, match.lag);
  }
}

}  // namespace

PhonePair::PhonePair(const std::filesystem::path& directory, const PortBlock& ports, const PairSetup& setup)
    : firstPlays(repeated(spoken(kFirstText, "en-us", rateOf(setup.callerCodec), directory), setup.times)),
      secondPlays(repeated(spoken(kSecondText, "en+f3", rateOf(setup.calleeCodec), directory), setup.times)),
      textSeconds(std::max(firstPlays.seconds(), secondPlays.seconds()) / setup.times) {
  first = std::make_unique<Baresip>(directory, PhoneSetup{.user = "100",
                                                          .sipPort = ports.phone(0),
                                                          .controlPort = ports.control(0),
                                                          .mediaPort = ports.media(0),
                                                          .codec = setup.callerCodec,
                                                          .plays = firstPlays,
                                                          .registrar = setup.registrar,
                                                          .password = setup.password,
                                                          .domain = setup.callerDomain,
                                                          .registerSeconds = setup.registerSeconds});
  second = std::make_unique<Baresip>(directory,
                                     PhoneSetup{.user = "200",
                                                .sipPort = setup.calleePort,
                                                .controlPort = ports.control(1),
                                                .mediaPort = ports.media(1),
                                                .codec = setup.calleeCodec,
                                                .plays = secondPlays,
                                                .registrar = setup.calleeRegistrar.value_or(setup.registrar),
                                                .password = setup.password,
                                                .registerSeconds = setup.registerSeconds});
}

void PhonePair::expectReady() {
  ASSERT_TRUE(first->ready()) << first->report();
  ASSERT_TRUE(second->ready()) << second->report();
}

void PhonePair::talk(Baresip& from, Baresip& to, const std::string& uri, Seconds duration) {
  from.dial(uri);
  ASSERT_TRUE(from.event("CALL_ESTABLISHED", Seconds(8))) << from.report();
  ASSERT_TRUE(to.event("CALL_ESTABLISHED", Seconds(3))) << to.report();
  std::this_thread::sleep_for(duration);
  from.hangUp();
  EXPECT_TRUE(to.event("CALL_CLOSED", Seconds(5))) << to.report();
  EXPECT_TRUE(from.event("CALL_CLOSED", Seconds(5))) << from.report();
}

std::pair<Sound, Sound> PhonePair::heardSince(Seconds duration) {
  std::array<Sound, 2> heard;
  const std::array phones{first.get(), second.get()};
  std::array<std::size_t, 2> before{};
  std::array<std::filesystem::path, 2> file;
  for (std::size_t i = 0; i < 2; ++i) {
    file[i] = phones[i]->heardFile();
    before[i] = phones[i]->heard().samples.size();
  }
  std::this_thread::sleep_for(duration);
  for (std::size_t i = 0; i < 2; ++i) {
    heard[i] = phones[i]->heard();
    if (phones[i]->heardFile() != file[i]) continue;  // a new stream has a file of its own
    heard[i].samples.erase(heard[i].samples.begin(),
                           heard[i].samples.begin() + static_cast<std::ptrdiff_t>(before[i]));
  }
  return {heard[0], heard[1]};
}

void PhonePair::expectBothHear(Seconds duration, double correlation) {
  const auto [byFirst, bySecond] = heardSince(duration);
  SCOPED_TRACE("what 200 heard of 100 meanwhile");
  expectHeard(firstPlays, bySecond, correlation, textSeconds);
  SCOPED_TRACE("what 100 heard of 200 meanwhile");
  expectHeard(secondPlays, byFirst, correlation, textSeconds);
}

void PhonePair::expectBothHeard(double correlation) {
  SCOPED_TRACE("what 200 heard of 100");
  expectHeard(firstPlays, second->heard(), correlation);
  SCOPED_TRACE("what 100 heard of 200");
  expectHeard(secondPlays, first->heard(), correlation);
  EXPECT_LT(medianCorrelation(matches(firstPlays, first->heard())), 0.5) << "100 heard itself";
}
