// Recordings, statistics lines and tones: what a call reads and leaves on disk.
#include <filesystem>
#include <sys/stat.h>

#include "app/config/Settings.h"
#include "rtp/G711.h"
#include "tests/rtp/RtpFixture.h"

namespace {

class FilesTest : public RtpTest {
 protected:
  std::string library(const std::string& name) const {
    std::filesystem::create_directory(installation.bin() / name);
    return (installation.bin() / name).string() + "/";
  }
  static std::vector<std::string> names(const std::string& directory) {
    std::vector<std::string> result;
    for (const auto& entry : std::filesystem::directory_iterator(directory))
      result.push_back(entry.path().filename());
    std::sort(result.begin(), result.end());
    return result;
  }
};

std::string linearBytes(const std::vector<int>& samples, int times = 1) {
  std::string out;
  for (int i = 0; i < times; ++i) {
    for (const int sample : samples) {
      out += static_cast<char>(sample);
      out += static_cast<char>(sample >> 8);
    }
  }
  return out;
}

TEST(SafeNamesTest, TextLosesSeparatorsAndPathsKeepThem) {
  char text[] = ":\\/@?\n *<>|a.b-c";
  char path[] = "C:\\x/y z@?\n*<>|a.b-c";
  MyRtp::replaceSpecialChars(text, false);
  MyRtp::replaceSpecialChars(path, true);
  EXPECT_STREQ(text, "___________a.b-c");
  EXPECT_STREQ(path, "C:\\x/y z_______a.b-c");
}

TEST_F(FilesTest, ProcessedSidesAreRecordedBeforeAndAfterTheEngine) {
  iNeedToDoAEC = 1;
  iNeedToDoNoiseCancellation = 1;
  const std::string orig = library("orig ");
  const std::string clean = library("clean");
  ASSERT_TRUE(pcOrigRecordingLibrary.assign(orig));
  ASSERT_TRUE(pcCleanRecordingLibrary.assign(clean));
  Call call({eCodecPCMU}, {eCodecPCMU});
  call.request.iCleaningType = 1;
  call.request.sLeg[1].pcPartyName = "b?b/1";
  call.request.sTimeCallStart = 1'000'000;
  ASSERT_EQ(call.open(), 0);
  constexpr int kLevel = 1052;
  Packet packet;
  packet.payload = std::string(64, static_cast<char>(linear2ulaw(kLevel)));
  call.pass(0, packet);
  call.pass(1, packet);
  call.close();

  std::string time = ctime(&call.request.sTimeCallStart);
  for (char& character : time)
    if (character == ' ' || character == ':' || character == '\n') character = '_';
  time += "_00";
  // Side 1 is not cleaned, but it is the reference of side 0's echo canceller.
  EXPECT_EQ(names(orig), (std::vector<std::string>{time + "-alice_127.0.0.1-b_b_1-orig",
                                                   time + "-b_b_1-alice_127.0.0.1-orig"}));
  EXPECT_EQ(names(clean), (std::vector<std::string>{
                              time + "-alice_127.0.0.1-b_b_1-clean", time + "-alice_127.0.0.1-synch",
                              time + "-b_b_1-alice_127.0.0.1-clean", time + "-b_b_1-synch", time + "-freq"}));
  EXPECT_EQ(TestInstallation::read(orig + time + "-alice_127.0.0.1-b_b_1-orig"), linearBytes({kLevel}, 64));
  EXPECT_EQ(TestInstallation::read(clean + time + "-alice_127.0.0.1-b_b_1-clean"),
            linearBytes({-kLevel / 2}, 64));
  EXPECT_EQ(TestInstallation::read(clean + time + "-b_b_1-alice_127.0.0.1-clean"), linearBytes({kLevel}, 64));
  EXPECT_EQ(TestInstallation::read(clean + time + "-alice_127.0.0.1-synch"),
            "mic 64\nmic 64\nspk 64\nspk 64\n");
  EXPECT_EQ(TestInstallation::read(clean + time + "-b_b_1-synch"), "spk 64\nspk 64\nmic 64\nmic 64\n");
  EXPECT_EQ(TestInstallation::read(clean + time + "-freq"), "8000\n");
}

TEST_F(FilesTest, TenCallsOfASlotHaveDifferentNamesAndTheEleventhAppends) {
  const std::string orig = library("orig");
  ASSERT_TRUE(pcOrigRecordingLibrary.assign(orig));
  Call call({eCodecPCMU}, {eCodecPCMU});
  call.request.iCleaningType = 1;
  for (int i = 0; i < 11; ++i) {
    ASSERT_EQ(call.open(), 0);
    ASSERT_EQ(call.close(), 0);
  }
  // Recording, two synch files and the rate per call.
  EXPECT_EQ(names(orig).size(), 40U);
  int rates = 0;
  for (const std::string& name : names(orig)) {
    if (!name.ends_with("-freq")) continue;
    ++rates;
    EXPECT_EQ(TestInstallation::read(orig + name), name.ends_with("_00-freq") ? "8000\n8000\n" : "8000\n");
  }
  EXPECT_EQ(rates, 10);
}

TEST_F(FilesTest, FilesThatCannotBeOpenedLeaveTheCallToGoOn) {
  const std::string missing = (installation.bin() / "missing" / "x").string();
  ASSERT_TRUE(pcOrigRecordingLibrary.assign(missing));
  ASSERT_TRUE(pcStatisticsFile.assign(missing));
  Call call({eCodecPCMU}, {eCodecPCMU});
  call.request.iCleaningType = 3;
  ASSERT_EQ(call.open(), 0);
  call.pass(0, Packet{});
  EXPECT_EQ(call.heardBy(1).size(), Packet{}.bytes().size());
  call.close();
  EXPECT_EQ(installation.logCount(" WARNING in MyRtp::openSessionPair, unable to open file " + missing), 2);
  EXPECT_EQ(installation.logCount("unable to open statistics file " + missing + "\n"), 2);

  ASSERT_TRUE(pcStatisticsFile.assign("/dev/full"));
  ASSERT_EQ(call.open(), 0);
  call.close();
  EXPECT_EQ(installation.logCount("unable to write to statistics file /dev/full\n"), 2);
}

// Of which nobody would hear otherwise: the call itself is as good as ever.
TEST_F(FilesTest, RecordingsOnAFullDiskAreNamedOnceAtTheirEnd) {
  const std::string orig = library("orig");
  ASSERT_TRUE(pcOrigRecordingLibrary.assign(orig));
  Call call({eCodecPCMU}, {eCodecPCMU});
  call.request.iCleaningType = 1;
  const auto run = [&] {
    ASSERT_EQ(call.open(), 0);
    call.record().iFileCounter = 0;  // the same names again
    for (int i = 1; i <= 20; ++i) call.pass(0, Packet{.sequence = i});
    call.close();
  };
  run();
  EXPECT_EQ(installation.logCount("unable to write to recording"), 0);
  const std::vector<std::string> files = names(orig);
  for (const std::string& name : files) {
    std::filesystem::remove(orig + name);
    std::filesystem::create_symlink("/dev/full", orig + name);
  }
  run();
  ASSERT_EQ(files.size(), 4U);
  for (const std::string& name : files)
    EXPECT_EQ(installation.logCount(", unable to write to recording " + orig + name + "\n"), 1);
}

TEST_F(FilesTest, LongestLibraryAndNamesStillMakeAPath) {
  std::string long_library = library("a");
  long_library.append(299 - long_library.size(), 'l');
  ASSERT_TRUE(pcOrigRecordingLibrary.assign(long_library));
  Call call({eCodecPCMU}, {eCodecPCMU});
  const std::string name(165, 'n');
  call.request.sLeg[0].pcPartyName = call.request.sLeg[1].pcPartyName = name.c_str();
  call.request.iCleaningType = 1;
  ASSERT_EQ(call.open(), 0);  // the kernel refuses names above 255 characters
  EXPECT_EQ(installation.logCount("unable to open file " + long_library), 1);
  EXPECT_EQ(installation.logCount("-" + name + "-" + name + "-orig\n"), 1);
}

// ---- Tones ----

TEST_F(FilesTest, TonesAreEncodedOncePerCodec) {
  std::vector<int> samples;
  for (int i = 0; i < 400; ++i) samples.push_back((i % 40 - 20) * 300);
  ASSERT_TRUE(pcDTMFOKToneFile.assign(installation.write("ok", linearBytes(samples) + "x")));
  ASSERT_TRUE(pcDTMFFailToneFile.assign((installation.bin() / "none").string()));
  ASSERT_EQ(myRtp.init(), 0);
  EXPECT_EQ(installation.logCount(" WARNING in MyRtp::init, can not open fail tone file"), 1);
  for (int codec = 0; codec < kNumCodecValues; ++codec) {
    EXPECT_EQ(myRtp.psOKTones[codec].iLength, codec < kNumOfferedCodecs ? 400 : 0);
    EXPECT_EQ(myRtp.psFailTones[codec].iLength, 0);
  }
  for (std::size_t i = 0; i < samples.size(); ++i) {
    // The tables tell samples apart by their upper 13 bits.
    const auto sample = static_cast<short>(samples[i] & ~7);
    ASSERT_EQ(myRtp.psOKTones[eCodecPCMA].pcData[i], linear2alaw(sample));
    ASSERT_EQ(myRtp.psOKTones[eCodecPCMU].pcData[i], linear2ulaw(sample));
  }
}

TEST_F(FilesTest, WhatIsNoToneIsNoToneAndStopsNobody) {
  const std::string fifo = (installation.bin() / "fifo").string();
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  for (const std::string& file : {installation.write("empty", ""), installation.write("byte", "x"),
                                  installation.bin().string(), fifo}) {
    ASSERT_TRUE(pcDTMFFailToneFile.assign(file));
    ASSERT_EQ(myRtp.init(), 0);
    for (const sToneBuffer& tone : myRtp.psFailTones) EXPECT_EQ(tone.iLength, 0) << file;
  }
  ASSERT_TRUE(pcDTMFFailToneFile.assign("/dev/zero"));  // a file without end
  ASSERT_EQ(myRtp.init(), 0);
  EXPECT_EQ(installation.logCount("too many samples in fail tone ignoring them"), 1);
}

TEST_F(FilesTest, ToneFileEndsAt16000Samples) {
  for (const int samples : {15999, 16000, 16001}) {
    installation.clearLog();
    ASSERT_TRUE(pcDTMFFailToneFile.assign(installation.write("fail", linearBytes({1000}, samples))));
    ASSERT_EQ(myRtp.init(), 0);
    EXPECT_EQ(myRtp.psFailTones[eCodecG722].iLength, std::min(samples, 16000));
    EXPECT_EQ(installation.logCount("too many samples in fail tone ignoring them"), samples < 16000 ? 0 : 1);
  }
}

}  // namespace
