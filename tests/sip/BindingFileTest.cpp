// The binding files: their image, what is written when, damage, full disks, and a process that is killed.
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "tests/sip/BindingTable.h"
#include "tests/support/SystemFault.h"
#include "tests/support/TestInstallation.h"

namespace {

constexpr std::time_t kNow = 1'700'000'000;
constexpr std::size_t kRecord = 635'664;

class BindingFileTest : public ::testing::Test {
 protected:
  BindingFileTest() {
    Clock::freezeAt(kNow);
    iSipProxyArchitecture = 1;
  }
  ~BindingFileTest() override {
    iSipProxyArchitecture = 0;
    Clock::followSystem();
  }

  std::filesystem::path file() const { return installation.bin() / "binding"; }
  std::filesystem::path backup() const { return installation.bin() / "binding-bkp"; }

  static std::string imageOf(BindingTable& table) {
    const std::int32_t count = table.iNumBindings;
    const std::int32_t trailer = 12345;
    std::string image(reinterpret_cast<const char*>(&count), 4);
    for (int binding = 0; binding < count; ++binding)
      image.append(reinterpret_cast<const char*>(&table.bindingAt(binding)), kRecord);
    return image.append(reinterpret_cast<const char*>(&trailer), 4);
  }

  // Three phones, the second with two subscriptions, saved to both files.
  void saveSmallTable() {
    BindingTable table;
    for (const char* user : {"201", "202", "203"}) table.bind(user);
    table.subscribe(1, "first@phone");
    table.subscribe(1, "second@phone");
    table.saveBindingFiles();
  }

  int upTo(int limit) { return static_cast<int>(random() % static_cast<unsigned>(limit)); }

  TestInstallation installation;
  std::mt19937 random{7};
};

// ---- The image ----

TEST_F(BindingFileTest, BothFilesAreTheImageOfTheTableAfterEveryKindOfChange) {
  BindingTable table;
  table.saveBindingFiles();
  ASSERT_EQ(TestInstallation::read(file()).size(), 8U);
  for (int step = 0; step < 60; ++step) {
    for (int changes = upTo(3) + 1; changes > 0; --changes) {
      const int binding = table.iNumBindings == 0 ? 0 : upTo(table.iNumBindings);
      const int kind = upTo(8);
      if (kind < 2 || table.iNumBindings == 0) {
        if (table.iNumBindings < 6) table.bind("u" + std::to_string(step));
      } else if (kind < 5) {
        table.subscribe(binding, "c" + std::to_string(step) + "@p", upTo(40) + 1);
      } else if (kind == 5) {
        table.bind(std::string(table.bindingAt(binding).pcBindingUser), 0);
      } else if (kind == 6) {
        Clock::advanceSeconds(10);
      } else {
        table.bindingAt(binding).psLastMsgs[2].pcMsg.assignCut(std::string(2999, 'x'));
        table.bindingChanged(binding);
      }
    }
    table.cleanupExpiredBindingsAndSubscriptions();
    table.saveBindingFiles();
    const std::string image = imageOf(table);
    ASSERT_TRUE(TestInstallation::read(file()) == image) << "step " << step;
    ASSERT_TRUE(TestInstallation::read(backup()) == image) << "step " << step;
  }
  BindingTable restarted;
  EXPECT_EQ(restarted.iNumBindings, table.iNumBindings);
  EXPECT_TRUE(imageOf(restarted) == imageOf(table));
  EXPECT_EQ(installation.log(), "");
}

// The main loop saves a large table in parts and changes it between them.
TEST_F(BindingFileTest, TableMayChangeInEveryWayBetweenThePartsOfASave) {
  random.seed(5);
  BindingTable table;
  const std::unique_ptr<sBinding[], FreeDeleter> scratch(
      static_cast<sBinding*>(std::calloc(kMaxBindings, sizeof(sBinding))));
  const auto loads = [&](const std::filesystem::path& path) {
    int count = 0;
    int repaired = 0;
    const auto outcome = BindingFile::load(path.c_str(), scratch.get(), count, repaired);
    return outcome == BindingFile::LoadOutcome::eLoaded && repaired == 0;
  };
  int parts = 0;
  for (int round = 0; round < 40; ++round) {
    table.beginSavingBindings();
    bool done = false;
    for (int part = 0; !done; ++part) {
      if (part < 6) {
        const int kind = upTo(4);
        if (kind == 0 || table.iNumBindings == 0) {
          // As the first bytes of a record, this name equals the trailer.
          table.processNewBindingInformation("90", "90@u", "90@d", "90", "h", 1, LoopbackPeer::address(1), 9);
          if (table.iNumBindings < 7) table.bind(std::to_string(round * 10 + part), upTo(20));
        } else if (kind == 1) {
          table.subscribe(upTo(table.iNumBindings), "c" + std::to_string(part), upTo(9));
        } else {
          Clock::advanceSeconds(upTo(6));
          table.cleanupExpiredBindingsAndSubscriptions();
        }
      }
      done = table.continueSavingBindings(1);
      ++parts;
      ASSERT_TRUE(loads(file()) || loads(backup())) << "round " << round << " part " << part;
    }
    table.saveBindingFiles();
    ASSERT_TRUE(TestInstallation::read(file()) == imageOf(table)) << round;
    ASSERT_TRUE(TestInstallation::read(backup()) == imageOf(table)) << round;
  }
  EXPECT_GT(parts, 100);
}

TEST_F(BindingFileTest, FieldsStandAtTheirOffsets) {
  BindingTable table;
  table.bind("201", 100, 5070, "10.1.2.3");
  table.bind("202");
  table.subscribe(1, "call@phone");
  table.bindingAt(1).subscription(0).iNotifyRelayCSeq = 77;
  table.bindingAt(1).iLastMsgIndex = 2;
  table.bindingChanged(1);
  table.saveBindingFiles();
  const std::string image = TestInstallation::read(file());
  const auto text = [&image](std::size_t offset) { return std::string(image.c_str() + 4 + offset); };
  const auto number = [&image](std::size_t offset) {
    std::int32_t value;
    std::memcpy(&value, image.data() + 4 + offset, 4);
    return value;
  };
  ASSERT_EQ(image.size(), 4 + 2 * kRecord + 4);
  EXPECT_EQ(text(0), "201@phone.example");
  EXPECT_EQ(text(166), "201@10.0.0.5");
  EXPECT_EQ(text(332), "201@pbx.example");
  EXPECT_EQ(text(498), "10.1.2.3");
  EXPECT_EQ(number(516), 5070);
  EXPECT_EQ(image.substr(4 + 520, 8), std::string("\x02\x00\x13\xCE\x0A\x01\x02\x03", 8));
  EXPECT_EQ(number(640) + number(648), kNow + 100) << "confirmed by nobody yet, requested for 100 s";
  EXPECT_EQ(number(kRecord + 12888), 1);
  EXPECT_EQ(text(kRecord + 12896 + 1190), "call@phone");
  EXPECT_EQ(number(kRecord + 12896 + 12196), -1);
  EXPECT_EQ(number(kRecord + 12896 + 12244), 77);
  EXPECT_EQ(number(kRecord + 626296), 1);
  EXPECT_EQ(number(kRecord + 626300 + 3100), -1);
  EXPECT_EQ(number(kRecord + 635660), 2);
  EXPECT_EQ(number(2 * kRecord), 12345);
}

// ---- What is written when ----

TEST_F(BindingFileTest, NothingIsWrittenWhileNothingChanges) {
  saveSmallTable();
  BindingTable table;  // the backup is checked against nothing, so it is written once
  table.saveBindingFiles();
  const auto states = [this] {
    return std::pair(std::filesystem::last_write_time(file()), std::filesystem::last_write_time(backup()));
  };
  const auto before = states();
  usleep(10'000);  // coarser than the file system's clock
  table.cleanupExpiredBindingsAndSubscriptions();
  table.saveBindingFiles();
  EXPECT_EQ(states(), before);
  table.bind("202", 60);
  table.saveBindingFiles();
  const auto after = states();
  EXPECT_TRUE(after.first != before.first && after.second != before.second);
}

TEST_F(BindingFileTest, UnusedSubscriptionEntriesTakeNoDiskSpace) {
  saveSmallTable();
  struct stat status;
  ASSERT_EQ(stat(file().c_str(), &status), 0);
  EXPECT_EQ(status.st_size, static_cast<off_t>(8 + 3 * kRecord));
  EXPECT_LT(status.st_blocks * 512, 200'000);
}

TEST_F(BindingFileTest, FilesTouchedFromOutsideAreWrittenAfresh) {
  const std::vector<std::pair<const char*, std::function<void(const std::filesystem::path&)>>> kTouches = {
      {"deleted", [](const auto& path) { std::filesystem::remove(path); }},
      {"replaced",
       [](const auto& path) {
         std::filesystem::copy_file(path, path.string() + "2");
         truncate((path.string() + "2").c_str(), 100);
         std::filesystem::rename(path.string() + "2", path);
       }},
      {"cut", [](const auto& path) { truncate(path.c_str(), 5000); }},
      {"overwritten in place",
       [](const auto& path) {
         usleep(10'000);  // coarser than the file system's clock
         const int descriptor = open(path.c_str(), O_WRONLY);
         EXPECT_EQ(pwrite(descriptor, "damage", 6, 1000), 6);
         close(descriptor);
       }},
  };
  BindingTable table;
  table.bind("201");
  for (const auto& [name, touch] : kTouches) {
    for (const auto& path : {file(), backup()}) {
      SCOPED_TRACE(std::string(name) + " " + path.string());
      table.saveBindingFiles();
      touch(path);
      table.saveBindingFiles();
      EXPECT_TRUE(TestInstallation::read(path) == imageOf(table));
    }
  }
}

// ---- Damage ----

TEST_F(BindingFileTest, DamagedFileIsIgnoredWithItsWarningAndTheBackupIsUsed) {
  const auto cutTo = [](off_t size) {
    return [size](const std::string& path) { EXPECT_EQ(truncate(path.c_str(), size), 0); };
  };
  const auto put = [](off_t offset, std::int32_t value) {
    return [offset, value](const std::string& path) {
      const int descriptor = open(path.c_str(), O_WRONLY);
      EXPECT_EQ(pwrite(descriptor, &value, 4, offset), 4);
      close(descriptor);
    };
  };
  constexpr off_t kTrailerAt = 4 + 3 * static_cast<off_t>(kRecord);
  const std::tuple<const char*, std::function<void(const std::string&)>, const char*> kCases[] = {
      {"empty", cutTo(0), "(index)"},
      {"half a count", cutTo(3), "(index)"},
      {"only a count", cutTo(4), "(table)"},
      {"cut in a record", cutTo(4 + static_cast<off_t>(kRecord) + 5), "(table)"},
      {"one byte of the table missing", cutTo(kTrailerAt - 1), "(table)"},
      {"no trailer", cutTo(kTrailerAt), "(number)"},
      {"half a trailer", cutTo(kTrailerAt + 3), "(number)"},
      {"negative count", put(0, -1), "(number of binding=-1)"},
      {"count too large", put(0, 501), "(number of binding=501)"},
      {"count of a longer table", put(0, 4), "(table)"},
      {"count of a shorter table", put(0, 2), "(number)"},
      {"wrong trailer", put(kTrailerAt, 12346), "(number)"},
      {"missing", [](const std::string& path) { unlink(path.c_str()); }, nullptr},
  };
  for (const auto& [name, damage, warning] : kCases) {
    SCOPED_TRACE(name);
    std::filesystem::remove(file());
    std::filesystem::remove(backup());
    saveSmallTable();
    installation.clearLog();
    damage(file());
    BindingTable table;
    EXPECT_EQ(table.iNumBindings, 3);
    EXPECT_EQ(table.bindingAt(1).iNumSubscriptions, 2);
    if (warning == nullptr) {
      EXPECT_EQ(installation.log(), "");
    } else {
      EXPECT_EQ(installation.logCount(" WARNING in MySip::readBindingTable, Binding file is corrupted " +
                                      std::string(warning) + " - ignored\n"),
                1)
          << installation.log();
    }
    EXPECT_TRUE(TestInstallation::read(file()) == imageOf(table)) << "repaired from the backup at once";
  }
}

TEST_F(BindingFileTest, BothFilesDamagedMakeAnEmptyTable) {
  saveSmallTable();
  ASSERT_EQ(truncate(file().c_str(), 100), 0);
  ASSERT_EQ(truncate(backup().c_str(), 100), 0);
  BindingTable table;
  EXPECT_EQ(table.iNumBindings, 0);
  EXPECT_EQ(installation.logCount("(table)"), 2);
  const std::string empty("\0\0\0\0\x39\x30\0\0", 8);
  EXPECT_EQ(TestInstallation::read(file()), empty);
  EXPECT_EQ(TestInstallation::read(backup()), empty);
  EXPECT_EQ(table.bind("204"), 0);
  EXPECT_EQ(table.bindingAt(0).iNumSubscriptions, 0);
}

TEST_F(BindingFileTest, RecordsFullOfGarbageAreRepairedNotTrusted) {
  std::string image(4 + kRecord + 4, '\xFF');
  const std::int32_t numbers[] = {1, 12345, 7, 3, 50};
  std::memcpy(image.data(), &numbers[0], 4);
  std::memcpy(image.data() + 4 + kRecord, &numbers[1], 4);
  for (const int subscriptions : {-1, 51, 50}) {
    SCOPED_TRACE(subscriptions);
    const int counter = subscriptions == 50 ? INT_MAX : subscriptions;  // one more must be a number
    std::memcpy(image.data() + 4 + 626296, &counter, 4);
    std::memcpy(image.data() + 4 + 12888, &subscriptions, 4);
    installation.clearLog();
    installation.write("binding", image);
    BindingTable table;
    ASSERT_EQ(table.iNumBindings, 1);
    EXPECT_EQ(table.bindingAt(0).iNumSubscriptions, subscriptions == 50 ? 50 : 0);
    EXPECT_EQ(table.bindingAt(0).iLastMsgIndex, 0);
    EXPECT_EQ(table.bindingAt(0).iRelayCSeqCounter, subscriptions == 51 ? 51 : 1);
    EXPECT_EQ(std::strlen(table.bindingAt(0).pcPhoneVia.c_str()), 999U);
    EXPECT_EQ(installation.logCount("1 of 1 bindings in the file"), 1);
    table.saveBindingFiles();
    EXPECT_TRUE(TestInstallation::read(file()) == imageOf(table));
    Clock::advanceSeconds(1);
    table.cleanupExpiredBindingsAndSubscriptions();  // all times are -1
    EXPECT_EQ(table.iNumBindings, 0);
  }
}

// ---- Failure to write ----

// The longest file that this process can write, as a full disk would have it.
class FullDisk {
 public:
  explicit FullDisk(rlim_t bytes) : handler(std::signal(SIGXFSZ, SIG_IGN)) {
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit limit{bytes, before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FullDisk() {
    setrlimit(RLIMIT_FSIZE, &before);
    std::signal(SIGXFSZ, handler);
  }

 private:
  rlimit before{};
  sighandler_t handler;
};

TEST_F(BindingFileTest, FullDiskLosesNeitherTheTableNorTheLastCompleteCopy) {
  saveSmallTable();
  BindingTable table;
  table.saveBindingFiles();
  table.bind("204");
  const std::string path = file().string();
  const std::string backupPath = backup().string();
  {
    const FullDisk disk(4 + 3 * kRecord);  // no room for the fourth record, none for the trailer
    for (int tick = 0; tick < 3; ++tick) table.saveBindingFiles();
  }
  EXPECT_EQ(installation.logCount(" WARNING in MySip::saveBindingTable, Unable to write table to file " +
                                  path + "\n"),
            3);
  EXPECT_EQ(table.iNumBindings, 4);
  {
    BindingTable restarted;
    EXPECT_EQ(restarted.iNumBindings, 3) << "the copy from before the disk was full";
  }
  table.saveBindingFiles();
  EXPECT_TRUE(TestInstallation::read(file()) == imageOf(table)) << "written as soon as there is room again";
  EXPECT_TRUE(TestInstallation::read(backup()) == imageOf(table));

  installation.clearLog();
  {
    const FullDisk disk(4 + 4 * kRecord + 2);
    table.bind("201", 50);
    table.saveBindingFiles();
  }
  EXPECT_EQ(installation.logCount("Unable to write number to file " + path + "\n"), 1);
  std::filesystem::remove(file());
  std::filesystem::create_symlink("/dev/full", file());
  table.saveBindingFiles();
  EXPECT_EQ(installation.logCount("Unable to write count to file " + path + "\n"), 1);
  std::filesystem::remove(file());
  EXPECT_EQ(BindingTable().iNumBindings, 4);
}

TEST_F(BindingFileTest, FileSystemsMayRefuseHolesAndNewNames) {
  BindingTable table;
  table.bind("201", 600);
  table.subscribe(0, "first@phone", 5);
  table.subscribe(0, "second@phone", 5);
  table.saveBindingFiles();
  Clock::advanceSeconds(6);
  table.cleanupExpiredBindingsAndSubscriptions();
  {
    const SystemFault fault("fallocate", EOPNOTSUPP);
    table.saveBindingFiles();
    EXPECT_EQ(SystemFault::failures(), 2);
  }
  EXPECT_TRUE(TestInstallation::read(file()) == imageOf(table)) << "zeros in their place";
  EXPECT_EQ(installation.log(), "");

  std::filesystem::remove(file());
  std::filesystem::remove(backup());
  {
    const SystemFault fault("rename", EIO);
    table.saveBindingFiles();
  }
  EXPECT_EQ(installation.logCount(" ERROR in MySip::saveBindingTable, Unable to write to the file " +
                                  file().string() + "\n"),
            1);
  EXPECT_FALSE(std::filesystem::exists(file().string() + ".new"));
  table.saveBindingFiles();
  EXPECT_TRUE(TestInstallation::read(file()) == imageOf(table));
}

TEST_F(BindingFileTest, ADirectoryInTheFilesPlaceLeavesTheBackupInUse) {
  saveSmallTable();
  std::filesystem::remove(file());
  std::filesystem::create_directory(file());
  BindingTable table;
  EXPECT_EQ(table.iNumBindings, 3);
  EXPECT_EQ(installation.logCount("(index)"), 1);
  table.bind("204");
  table.saveBindingFiles();
  EXPECT_EQ(installation.logCount(" ERROR in MySip::saveBindingTable, Unable to write to the file " +
                                  file().string() + "\n"),
            2);
  EXPECT_TRUE(TestInstallation::read(backup()) == imageOf(table));
  std::filesystem::remove(file());
  table.saveBindingFiles();
  EXPECT_TRUE(TestInstallation::read(file()) == imageOf(table));
}

// ---- Killed while saving ----

// A table that is a function of one number, the generation: which phones it has and what each record holds.
// From one generation to the next phones come and go at both ends, so that records move, and some records
// change.
struct sGeneration {
  int g;
  int first() const { return g / 5; }
  int count() const { return 1 + g * 7 % 4; }
  int content(int user) const { return user == first() ? g : g - (g + user) % 3; }

  void apply(BindingTable& table) const {
    for (int binding = 0; binding < table.iNumBindings; ++binding) {
      const int user = std::stoi(std::string(table.bindingAt(binding).pcBindingUser));
      if (user < first() || user >= first() + count()) table.bind(std::to_string(user), 0);
    }
    table.cleanupExpiredBindingsAndSubscriptions();
    for (int user = first(); user < first() + count(); ++user) {
      int binding = table.getBindingIndex(std::to_string(user) + "@phone.example");
      if (binding >= 0 && table.bindingAt(binding).iPhoneCSeq == content(user)) continue;
      binding = table.bind(std::to_string(user));
      sBinding& record = table.bindingAt(binding);
      while (record.iNumSubscriptions < content(user) % 3)
        table.subscribe(binding, "c" + std::to_string(record.iNumSubscriptions) + "@p");
      record.iPhoneCSeq = content(user);
      record.psLastMsgs[1].iCSeq = content(user);
      table.bindingChanged(binding);
    }
  }
  bool isIn(BindingTable& table) const {
    if (table.iNumBindings != count()) return false;
    for (int binding = 0; binding < count(); ++binding) {
      const sBinding& record = table.bindingAt(binding);
      const int user = std::stoi(std::string(record.pcBindingUser));
      if (user < first() || user >= first() + count() || record.iPhoneCSeq != content(user) ||
          record.psLastMsgs[1].iCSeq != content(user))
        return false;
    }
    return true;
  }
  static int newestIn(BindingTable& table) {
    int newest = 0;
    for (int binding = 0; binding < table.iNumBindings; ++binding)
      newest = std::max(newest, table.bindingAt(binding).iPhoneCSeq);
    return newest;
  }
};

[[noreturn]] void saveUntilKilled(int readyPipe) {
  BindingTable table;
  int g = sGeneration::newestIn(table);
  (void)!write(readyPipe, "r", 1);
  for (;;) {
    sGeneration{++g}.apply(table);
    table.saveBindingFiles();
  }
}

TEST_F(BindingFileTest, KillingTheProcessAtAnyMomentLeavesACompleteFile) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  int lastGeneration = 0;
  int torn = 0;
  for (int round = 0; round < 200; ++round) {
    const pid_t child = fork();
    if (child == 0) saveUntilKilled(ready[1]);
    char byte;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    usleep(static_cast<useconds_t>(upTo(8000)));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);

    installation.clearLog();
    BindingTable survivor;
    const int g = sGeneration::newestIn(survivor);
    ASSERT_TRUE(g == 0 || sGeneration{g}.isIn(survivor)) << "round " << round << " " << installation.log();
    ASSERT_GE(g, lastGeneration) << "a state that had been read is lost, round " << round;
    lastGeneration = g;
    torn += installation.logCount("corrupted");
  }
  close(ready[0]);
  close(ready[1]);
  EXPECT_GT(lastGeneration, 0);
  RecordProperty("filesFoundHalfWritten", torn);
}

}  // namespace
