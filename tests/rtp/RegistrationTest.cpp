// Learning a voice during a call, and what the files of a voice must look like to be used.
#include <filesystem>
#include <future>

#include "app/config/Settings.h"
#include "rtp/VoiceProfile.h"
#include "tests/rtp/RtpFixture.h"
#include "tests/support/SystemFault.h"

namespace {

std::string littleEndian(std::uint32_t value) {
  std::string out;
  for (int i = 0; i < 4; ++i) out += static_cast<char>(value >> (8 * i));
  return out;
}

class RegistrationTest : public RtpTest {
 protected:
  RegistrationTest() {
    initWithKeys();
    call.request.iCleaningType = 1;
  }

  void command(std::string digits) { myRtp.checkAndHandleDTMFCommands(0, 0, digits.data()); }
  void talk(int packets) {
    for (int i = 0; i < packets; ++i) {
      Packet packet;
      packet.sequence = ++sequence & 0xFFFF;
      packet.payload = std::string(160, '\x80');
      ASSERT_EQ(call.pass(0, packet), 0);
    }
    while (!call.silent(1)) {
    }
  }
  void end() {
    ASSERT_EQ(call.close(), 0);
    myRtp.finishEndings();
  }
  std::string path(const std::string& ending) const {
    return (installation.bin() / "voice-").string() + ending;
  }
  std::string toneForDialler() {
    const int remaining = call.record().iToneRemaining[1];
    call.record().iToneRemaining[1] = 0;
    return remaining == 200 ? "OK" : remaining == 400 ? "fail" : "none";
  }
  static std::string profile() {
    const std::uint32_t bytes = FakeEngine::get().speakerBytes;
    return littleEndian(bytes) + std::string(bytes, 'v');
  }

  Call call{{eCodecPCMU}, {eCodecPCMU}};
  int sequence = 0;
};

TEST_F(RegistrationTest, LeavesAProfileAndAWavCopyWhenTheCallEnds) {
  ASSERT_EQ(call.open(), 0);
  command("*1123#");
  EXPECT_EQ(toneForDialler(), "OK");
  EXPECT_TRUE(FakeEngine::get().noise[0].sInit.bStartRegistration);
  talk(99);  // the keys' own sound is left out: 16,000 samples
  EXPECT_EQ(FakeEngine::get().noise[0].iFrames, 0);
  talk(3);
  EXPECT_EQ(FakeEngine::get().noise[0].iFrames, 11);
  end();
  EXPECT_EQ(TestInstallation::read(path("123")), profile());
  EXPECT_FALSE(std::filesystem::exists(path("123.raw")));
  const std::string wave = TestInstallation::read(path("123.wav"));
  constexpr std::uint32_t kBytes = 11 * 64;
  EXPECT_EQ(wave.substr(0, 44), "RIFF" + littleEndian(kBytes + 36) + "WAVEfmt " + littleEndian(16) +
                                    std::string("\1\0\1\0", 4) + littleEndian(8000) + littleEndian(16000) +
                                    std::string("\2\0\20\0", 4) + "data" + littleEndian(kBytes));
  ASSERT_EQ(wave.size(), 44 + kBytes);
  // What was recorded is the talker, before the engine.
  EXPECT_EQ(wave.substr(44, 2), std::string("\x7C\x7D", 2));
}

// Deriving and storing the voice holds up no other call, and the caller's next call waits for his voice.
TEST_F(RegistrationTest, EndsBesideTheSipThreadWhenTheCallDoes) {
  ASSERT_EQ(call.open(), 0);
  command("*15#");
  talk(101);
  std::promise<void> mayEnd;
  FakeEngine::get().onCompletion = [wait = mayEnd.get_future().share()] { wait.wait(); };
  ASSERT_EQ(call.close(), 0);
  EXPECT_EQ(call.close(), -1) << "it is no call any more";
  EXPECT_TRUE(FakeEngine::get().noise[0].bRunning);
  Call next({eCodecPCMU}, {eCodecPCMU}, "next");
  next.request.iCleaningType = 1;
  ASSERT_EQ(next.open(), 1) << "the engine's channel is still taken";
  std::string digits = "*25#";
  auto activation =
      std::async(std::launch::async, [&] { myRtp.checkAndHandleDTMFCommands(0, 1, digits.data()); });
  EXPECT_EQ(activation.wait_for(std::chrono::milliseconds(30)), std::future_status::timeout);
  mayEnd.set_value();
  activation.get();
  EXPECT_EQ(next.record().iToneRemaining[1], 200) << "OK";
  myRtp.finishEndings();
  EXPECT_FALSE(FakeEngine::get().noise[0].bRunning);
  EXPECT_EQ(call.open(), 0) << "free again";
}

TEST_F(RegistrationTest, EndsOnTheSipThreadWhenThereIsNoOther) {
  ASSERT_EQ(call.open(), 0);
  command("*15#");
  talk(101);
  {
    const SystemFault fault("pthread_create", EAGAIN);
    ASSERT_EQ(call.close(), 0);
  }
  EXPECT_EQ(
      installation.logCount(" WARNING in MyRtp::closeSessionPair, unable to create thread to end pair 0\n"),
      1);
  EXPECT_EQ(TestInstallation::read(path("5")), profile());
  EXPECT_EQ(call.open(), 0);
  command("*25#");
  EXPECT_TRUE(FakeEngine::get().noise[0].bVoice);
}

// A voice that was cut is none: the name stays taken, and who asks for it hears the fail tone.
TEST_F(RegistrationTest, VoiceOnAFullDiskIsNamedAndNotActivated) {
  ASSERT_EQ(call.open(), 0);
  command("*15#");
  talk(101);
  toneForDialler();
  call.record().pfRegistrationData[0] = openFile("/dev/full", "wb");
  myRtp.doStopRegistration(0, 0);
  EXPECT_EQ(installation.logCount(" WARNING in MyRtp::doStopRegistration, unable to write PID"), 1);
  command("*25#");
  EXPECT_EQ(toneForDialler(), "fail");
}

TEST_F(RegistrationTest, EndsByItselfAfter300SecondsAndActivatesTheVoice) {
  ASSERT_EQ(call.open(), 0);
  command("*17#");
  for (int i = 0; i < 15; ++i) talk(1000);
  EXPECT_TRUE(call.record().bRegistering[0]);
  talk(1);
  EXPECT_FALSE(call.record().bRegistering[0]);
  EXPECT_TRUE(FakeEngine::get().noise[0].bVoice);
  EXPECT_FALSE(FakeEngine::get().noise[0].sInit.bStartRegistration);
  EXPECT_EQ(FakeEngine::get().noise[0].pcLoadedVoice, std::vector<char>(16, 'v'));
  EXPECT_EQ(std::filesystem::file_size(path("7.wav")), 44 + 2 * (2'400'000 - 15'999 / 32 * 32));
}

TEST_F(RegistrationTest, RefusedVoiceIsAnsweredWithTheFailToneAfter300Seconds) {
  ASSERT_EQ(call.open(), 0);
  command("*18#");
  EXPECT_EQ(toneForDialler(), "OK");
  FakeEngine::get().failCompletion = true;
  for (int i = 0; i < 15; ++i) talk(1000);
  talk(1);
  EXPECT_EQ(installation.logCount("no voice was learned, the voice is too weak or too near the background\n"),
            1);
  EXPECT_EQ(installation.logCount("unable to read from file " + path("8")), 1);
  EXPECT_EQ(toneForDialler(), "fail");
}

// Another call may take the name between the look and the opening; here a link that leads nowhere does.
TEST_F(RegistrationTest, NeverReplacesAProfile) {
  installation.write("voice-5", "kept");
  std::filesystem::create_symlink("nowhere", path("6"));
  ASSERT_EQ(call.open(), 0);
  for (const std::string name : {"5", "6"}) {
    command("*1" + name + "#");
    EXPECT_EQ(toneForDialler(), "fail");
    EXPECT_FALSE(call.record().bRegistering[0]);
    EXPECT_EQ(installation.logCount(" WARNING in MyRtp::doRegistration, do not allow to override file " +
                                    path(name)),
              1);
  }
  EXPECT_EQ(TestInstallation::read(path("5")), "kept");
}

TEST_F(RegistrationTest, RecordingStaysWhenItsCopyCannotBeWritten) {
  std::filesystem::create_symlink("/dev/full", path("6.wav"));
  ASSERT_EQ(call.open(), 0);
  command("*16#");
  talk(101);
  end();
  EXPECT_EQ(TestInstallation::read(path("6")), profile());
  EXPECT_EQ(std::filesystem::file_size(path("6.raw")), 6 * 64U);
  EXPECT_EQ(installation.logCount(" WARNING in MyRtp::doStopRegistration, unable to copy " + path("6.raw")),
            1);
}

TEST_F(RegistrationTest, CommandDuringARegistrationAbortsItAndTheNameStaysTaken) {
  Clock::freezeAt(5'000'000);
  ASSERT_EQ(call.open(), 0);
  command("*11#");
  talk(101);
  command("*9");
  EXPECT_FALSE(call.record().bRegistering[0]);
  EXPECT_EQ(std::filesystem::file_size(path("1")), 0U);
  EXPECT_EQ(std::filesystem::file_size(path("1.raw")), 6 * 64U);
  EXPECT_EQ(toneForDialler(), "OK");
  command("*14#");
  EXPECT_EQ(toneForDialler(), "fail") << "a second one within a second";
  EXPECT_FALSE(std::filesystem::exists(path("4")));
  // A second registration replaces the one that runs and has files of its own.
  for (const char* digits : {"*12#", "*13#"}) {
    Clock::advanceSeconds(1);
    command(digits);
  }
  EXPECT_TRUE(call.record().bRegistering[0]);
  EXPECT_EQ(call.record().pcRegistrationName[0], "3");
  end();
  EXPECT_EQ(std::filesystem::file_size(path("2")), 0U);
  EXPECT_EQ(TestInstallation::read(path("3")), profile());
}

TEST_F(RegistrationTest, IsRefusedWhereItCannotRun) {
  struct Case {
    const char* name;
    std::function<void()> prepare;
    std::string digits;
    const char* warning;
  };
  const Case cases[] = {
      {"engine", [] { FakeEngine::get().failingInits = 1; }, "*14#",
       "unable to initialize kestrova channel 0\n"},
      {"name", [] {}, "*1" + std::string(50, '4') + "#", "registration name is too long, "},
      {"wav", [this] { std::filesystem::create_directory(path("4.wav")); }, "*14#", "unable to open file "},
      {"raw", [this] { std::filesystem::create_directory(path("5.raw")); }, "*15#", "unable to open file "},
      {"directory", [this] { (void)pcRegistrationLibrary.assign(path("none/")); }, "*14#",
       "unable to open file "},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_EQ(call.open(), 0);
    installation.clearLog();
    c.prepare();
    command(c.digits);
    EXPECT_EQ(toneForDialler(), "fail");
    EXPECT_FALSE(call.record().bRegistering[0]);
    EXPECT_EQ(installation.logCount(" WARNING in MyRtp::doRegistration, " + std::string(c.warning)), 1);
    for (const char* left : {"4", "5", "4.raw"}) EXPECT_FALSE(std::filesystem::exists(path(left))) << left;
    call.close();
  }
}

TEST_F(RegistrationTest, SideWithoutNoiseReductionDoesNotRegister) {
  call.request.iCleaningType = 2;
  ASSERT_EQ(call.open(), 0);
  command("*16#");
  EXPECT_EQ(toneForDialler(), "none");
  EXPECT_FALSE(std::filesystem::exists(path("6")));
  myRtp.doStopRegistration(0, 0);
  myRtp.doAbortRegistration(0, 0);
  EXPECT_EQ(installation.logCount("how did we start registration if ther is no noise cleaning ?\n"), 2);
}

TEST_F(RegistrationTest, NothingUsableLearnedLeavesAnEmptyProfile) {
  ASSERT_EQ(call.open(), 0);
  command("*18#");
  talk(101);
  FakeEngine::get().failCompletion = true;
  end();
  EXPECT_EQ(installation.logCount(" WARNING in MyRtp::doStopRegistration, unable to complete registration\n"),
            1);
  EXPECT_EQ(installation.logCount("no voice was learned, the voice is too weak or too near the background\n"),
            1);
  EXPECT_EQ(std::filesystem::file_size(path("8")), 0U);
}

TEST_F(RegistrationTest, VoiceWithoutMemoryIsNeitherKeptNorActivated) {
  if (!SystemFault::isPossible("new")) GTEST_SKIP() << "the heap is the sanitizer's";
  installation.write("voice-3", profile());
  ASSERT_EQ(call.open(), 0);
  command("*18#");
  talk(101);
  toneForDialler();
  const SystemFault fault("new", ENOMEM);
  myRtp.doStopRegistration(0, 0);
  EXPECT_EQ(std::filesystem::file_size(path("8")), 0U);
  command("*23#");
  EXPECT_EQ(toneForDialler(), "fail");
  for (const char* writer : {"doStopRegistration", "doActivation"})
    EXPECT_EQ(installation.logCount(std::string(" WARNING in MyRtp::") + writer +
                                    ", unable to allocate place for pcSpeaker\n"),
              1);
}

TEST_F(RegistrationTest, OnlyAWholeProfileIsActivated) {
  const std::string whole = profile();
  const std::uint32_t bytes = FakeEngine::get().speakerBytes;
  const std::tuple<const char*, std::string, const char*> cases[] = {
      {"whole", whole, "OK"},
      {"not one that the engine takes", littleEndian(bytes) + std::string(bytes, 'w'), "fail"},
      {"empty", "", "fail"},
      {"no length", whole.substr(0, 3), "fail"},
      {"only the length", littleEndian(bytes), "fail"},
      {"one byte short", whole.substr(0, whole.size() - 1), "fail"},
      {"length of nothing", littleEndian(0) + whole, "fail"},
      {"length of everything", littleEndian(0xFFFFFFFFU) + whole, "fail"},
      {"no speaker record's length", littleEndian(bytes - 1) + whole, "fail"},
      {"too small for a speaker record", littleEndian(4740) + whole, "fail"},
  };
  ASSERT_EQ(call.open(), 0);
  for (const auto& [name, content, tone] : cases) {
    SCOPED_TRACE(name);
    installation.clearLog();
    installation.write("voice-3", content);
    command("*2");
    command("*23#");
    EXPECT_EQ(toneForDialler(), tone);
    EXPECT_EQ(installation.logCount(" WARNING in MyRtp::doActivation, unable to read from file " + path("3")),
              tone == std::string("OK") ? 0 : 1);
  }
}

// A file of 5 GB without content: nothing of it is read into memory.
TEST_F(RegistrationTest, HugeFileIsNoProfile) {
  installation.write("voice-3", profile().substr(0, 8));
  std::filesystem::resize_file(path("3"), 5'000'000'000);
  ASSERT_EQ(call.open(), 0);
  command("*23#");
  EXPECT_EQ(toneForDialler(), "fail");
}

TEST(WaveTest, LengthStaysTrueWhenTheRawFileIsShorter) {
  std::FILE* raw = std::tmpfile();
  std::FILE* wave = std::tmpfile();
  std::fputs("abc", raw);  // the odd byte is no sample
  std::rewind(raw);
  MyRtp::writeWaveHeader(wave, 8, 16000);
  MyRtp::writeWaveData(raw, wave, 8);
  std::rewind(wave);
  char bytes[60];
  ASSERT_EQ(std::fread(bytes, 1, sizeof bytes, wave), 52U);
  EXPECT_EQ(std::string(bytes + 24, 8), littleEndian(16000) + littleEndian(32000));
  EXPECT_EQ(std::string(bytes + 44, 8), std::string("ab\0\0\0\0\0\0", 8));
  std::fclose(raw);
  std::fclose(wave);
}

}  // namespace
