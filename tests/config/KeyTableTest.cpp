// Every key of the configuration file: its default, what it takes and refuses, the exact messages, and
// whether a reload applies it.
#include <optional>
#include <set>
#include <vector>

#include "app/config/MyConfiguration.h"
#include "tests/config/ConfigurationFixture.h"

namespace {

constexpr const char* kRequired = nullptr;
constexpr bool kReload = true;
constexpr bool kStart = false;

// What a value of the key is made of, and so where its limits lie.
enum class Limit { eNone, eWord, eListWord, ePath, eExpressions };

struct sExpectation {
  const char* key;
  const char* absent;  // what the setting holds without the key; null: loading fails
  bool reloadable;
  std::vector<std::string> accepted;  // stored as written
  std::vector<std::string> refused = {};
  const char* message = "";  // after "value of <key> "
  Limit limit = Limit::eNone;
  std::size_t longest = 0;
};

using Values = std::vector<std::string>;
const Values kFlags = {"0", "1"};
const Values kNoFlags = {"-1", "2"};
constexpr const char* kFlagMessage = "is not 0 or 1\n";
const Values kPercents = {"0", "100"};
const Values kNoPercents = {"-1", "101"};
constexpr const char* kPercentMessage = "is not between 0 to 100\n";
const Values kAnything = {"-7", "0", "70000"};
constexpr const char* kTooLong = "is too long\n";

sExpectation flag(const char* key, const char* absent, bool reloadable) {
  return {key, absent, reloadable, kFlags, kNoFlags, kFlagMessage};
}
sExpectation percent(const char* key, const char* absent) {
  return {key, absent, kReload, kPercents, kNoPercents, kPercentMessage};
}
sExpectation number(const char* key, const char* absent, bool reloadable) {
  return {key, absent, reloadable, kAnything};
}
sExpectation text(const char* key, const char* absent, bool reloadable, Limit limit, std::size_t longest) {
  return {key, absent, reloadable, {}, {}, kTooLong, limit, longest};
}
sExpectation path(const char* key, bool reloadable) {
  return text(key, "", reloadable, Limit::ePath, 299);
}
sExpectation expressions(const char* key) {
  return {key, "", kStart, {"a;", "1??@10.0.0.1;b c;;"}, {}, "", Limit::eExpressions};
}

const std::vector<sExpectation> kExpectations = {
    {"ConfigVersion", kRequired, kStart, {"2"}, {"1", "3"}, "is not supported\n"},
    {"IPVersion", kRequired, kStart, {"4"}, {"3", "6"}, "is not supported\n"},
    {"SipProxyIP", kRequired, kStart, {"10.0.0.9", "127.0.0.1"}},
    number("SipProxyPort", kRequired, kStart),
    {"SipUAIP", "192.0.2.77", kStart, {"10.0.0.9", "127.0.0.1"}},
    text("SipProxyDomain", "192.0.2.77", kStart, Limit::eWord, 49),
    number("SipUAPort", kRequired, kStart),
    number("RtpUAPortInitVal", kRequired, kStart),
    text("Separator", kRequired, kStart, Limit::eWord, 9),
    {"CmdBasedOnCallerID", "", kStart, {"a=*##1;", "a=*##1;b=c##2;"}},
    {"DefaultCmd", "", kStart, {"*##0", "a@b##3"}},
    flag("NeedToDoNoiseCancellation", "1", kReload),
    flag("NeedToDoAEC", "0", kReload),
    text("TrunkName", "", kStart, Limit::eWord, 99),
    flag("RegisterTrunk", "0", kStart),
    {"NumPhonesToAllocate", kRequired, kStart, {"2", "1000"}},
    flag("SipProxyArchitecture", "0", kStart),
    text("OrigPhonesName", "", kStart, Limit::eListWord, 0),
    text("PairPhonesName", "", kStart, Limit::eListWord, 0),
    flag("RegisterOrigPhones", kRequired, kStart),
    flag("RegisterPairPhones", kRequired, kStart),
    text("Secret", "", kStart, Limit::eWord, 19),
    flag("NeedToCheckDTMF", kRequired, kReload),
    flag("BypassVAD", "0", kReload),
    {"CPUPower", kRequired, kReload, {"0", "10"}, {"-1", "11"}, "is not between 0 to 10\n"},
    {"DetectAggressiveLevel", kRequired, kReload, {"0", "4"}, {"-1", "5"}, "is not between 0 to 4\n"},
    {"CleanAggressiveLevel", kRequired, kReload, {"5", "12"}, {"-6", "4", "13"}, "is not between 5 to 12\n"},
    flag("CancelAcousticShock", "0", kReload),
    {"RegisterExpiration", "3600", kStart, {"1", "2147483647"}, {"-1", "0"}, "is not positive\n"},
    {"GroupType", "0", kReload, {"0", "3"}, {"-1", "4"}, "is not between 0 to 3\n"},
    percent("CNGInitialValue", "15"),
    percent("CNGEndValue", "15"),
    percent("BurstEndDecrease", "40"),
    percent("BurstEndLowerValue", "15"),
    flag("RemoveNonSelfFrequencies", "1", kReload),
    expressions("DOSExpressions"),
    expressions("AOSExpressions"),
    path("OrigRecordingLibrary", kReload),
    path("CleanRecordingLibrary", kReload),
    path("StatisticsFile", kReload),
    text("DTMFRegistraterPrefix", "abcde", kReload, Limit::eWord, 299),
    text("DTMFActivatePrefix", "abcde", kReload, Limit::eWord, 299),
    text("DTMFSuffix", "abcde", kReload, Limit::eWord, 299),
    text("DTMFDisable", "abcde", kReload, Limit::eWord, 299),
    path("RegistrationLibrary", kReload),
    path("DTMFOKToneFile", kStart),
    path("DTMFFailToneFile", kStart),
    {"MaxCoefInAECParam", "100", kReload, {"10", "300"}, {"9", "301", "-10"}, "is not between 10 to 300\n"},
    {"AECTailType", "1", kReload, {"-58", "5"}, {"-59", "6"}, "is not between -58 to 5\n"},
    flag("StartWithFilterActivated", "1", kReload),
    number("ThresholdToHighlightNoiseLevel", "3000", kReload),
    number("ThresholdToHighlightEchoLevel", "1000", kReload),
    number("ThresholdToHighlightJitter", "10", kReload),
    number("ThresholdToHighlightDelay", "100", kReload),
    {"ThresholdToHighlightPacketLoss", "0.100000001", kReload, {"0.5", "-12.25"}},
    {"ThresholdToHighlightMOS", "3.5999999", kReload, {"4.5", "1"}},
    path("RealTimeAverageStatisticsFile", kReload),
    path("RealTimeExtremeStatisticsFile", kReload),
    {"RefreshRateOfRealTimeStatistics", "10", kReload, {"2", "3600"}},
    text("OrigPhonesNamePrefix", "KestrovaOrig", kStart, Limit::eWord, 95),
    text("PairPhonesNamePrefix", "KestrovaPair", kStart, Limit::eWord, 95),
    number("RTPTimeoutInSeconds", "30", kStart),
    {"AECAlgorithm",
     kRequired,
     kReload,
     {"basic", "advanced-4", "advanced-7", "advanced"},
     {"Basic", "advanced-", "advanced-4-and-a-very-long-tail"},
     "must be either basic or advanced or advanced-4 or advanced-7\n"},
    flag("NeedToDoAGC", "0", kReload),
    {"AGCLevel", "32000", kReload, {"0", "64000"}, {"-1", "64001"}, "is not between 0 to 64000\n"},
    percent("AECMinOutputPercentageDuringEcho", "0"),
    flag("CanHaveDifferentIPForDifferentMedia", "0", kStart),
    number("RTPTimeoutWhenOnHoldInSeconds", "300", kStart),
    flag("PairPhoneShouldImpersonateTheOriginator", "0", kStart),
    number("ThresholdToHighlightAGCCoef", "300", kReload),
    {"SipRoutingFile", "", kStart, {}},
    {"SipUAIPForBinding", "192.0.2.77", kStart, {"10.0.0.9", "127.0.0.1"}},
    {"CmdBasedOnDestination", "", kStart, {"a=*##1;", "a=*##1;b=c##2;"}},
    text("OrigPhonesSecret", "", kStart, Limit::eListWord, 9999),
    text("PairPhonesSecret", "", kStart, Limit::eListWord, 9999),
    flag("InviteShouldMatchPairPhoneName", "0", kStart),
    {"NumCallsToFilter", "3", kStart, {"1", "127", "128"}, {"-1", "0"}, "is not positive\n"},
    flag("SipDebug", "0", kStart),
    path("SimEmulatorInputFile", kStart),
    {"AECHowlingLevel", "10", kReload, {"0", "20"}, {"-1", "21"}, "is not between 0 to 20\n"},
    flag("UseContactHeaderForFarEndAddressDuringRegistation", "0", kStart),
    flag("UseConnectionSessionDescriptorForFarEndMediaAddress", "1", kStart),
    expressions("PSHExpressions"),
    flag("UseOriginalRURI", "0", kStart),
    flag("CopyCodecListFromInitialInvite", "0", kStart),
    {"AECAggressiveLevel", "10", kReload, {"0", "20"}, {"-1", "21"}, "is not between 0 to 20\n"},
};

class KeyTableTest : public ConfigurationTest {
 protected:
  // Two values that the key takes, as they end up in the setting.
  std::vector<std::string> samples(const sExpectation& key) const {
    switch (key.limit) {
      case Limit::ePath:
        return {binPath() + "one", binPath() + "two"};
      case Limit::eWord:
        return {"one", "two"};
      case Limit::eListWord:
        return {"one;", "one;two;"};
      default:
        return key.accepted;
    }
  }
  // A stored value as it stands in the file.
  std::string written(const sExpectation& key, const std::string& stored) const {
    return key.limit == Limit::ePath ? stored.substr(binPath().size()) : stored;
  }
  std::string binPath() const { return installation.bin().string() + "/"; }
  std::string message(const sExpectation& key) const {
    return "value of " + std::string(key.key) + " " + key.message;
  }
};

TEST_F(KeyTableTest, EveryKeyIsListedOnceInTheOrderOfTheDefaults) {
  ASSERT_EQ(kExpectations.size(), keyRegistry().size());
  for (std::size_t i = 0; i < kExpectations.size(); ++i) {
    EXPECT_STREQ(keyRegistry()[i].pcName, kExpectations[i].key);
    EXPECT_EQ(keyRegistry()[i].bReloadable, kExpectations[i].reloadable) << kExpectations[i].key;
  }
}

TEST_F(KeyTableTest, AbsentKeysGetTheirDefaults) {
  ASSERT_EQ(load(), 0) << installation.log();
  for (const sExpectation& key : kExpectations)
    if (key.absent != kRequired) {
      EXPECT_EQ(settingText(key.key), key.absent) << key.key;
    }
  EXPECT_EQ(iNumSipRoutingRecords, 0);
}

TEST_F(KeyTableTest, AbsentRequiredKeysStopLoading) {
  for (const sExpectation& key : kExpectations)
    if (key.absent == kRequired) {
      EXPECT_EQ(load({{key.key, ""}}), 2) << key.key;
      expectOnlyError("no value given in conf-file for: " + std::string(key.key) + "\n");
    }
}

TEST_F(KeyTableTest, RefusedValuesStopLoadingAndLeaveTheSetting) {
  for (const sExpectation& key : kExpectations)
    for (const std::string& value : key.refused) {
      ASSERT_EQ(load(), 0);
      const std::string before = settingText(key.key);
      EXPECT_EQ(load({{key.key, value}}), 2) << key.key << "=" << value;
      expectOnlyError(message(key));
      EXPECT_EQ(settingText(key.key), before) << key.key;
    }
}

// The limit of a path counts the installation directory, that of a list the semicolon that is appended.
TEST_F(KeyTableTest, TextsEndAtTheirLongestLength) {
  for (const sExpectation& key : kExpectations) {
    if (key.longest == 0) continue;
    const std::size_t added = key.limit == Limit::ePath ? binPath().size() : key.limit == Limit::eListWord;
    for (const std::size_t length : {key.longest - 1, key.longest, key.longest + 1}) {
      const int expected = length <= key.longest ? 0 : 2;
      EXPECT_EQ(load({{key.key, std::string(length - added, 'x')}}), expected) << key.key << " " << length;
      if (expected == 0)
        EXPECT_EQ(settingText(key.key).size(), length) << key.key;
      else
        expectOnlyError(message(key));
    }
  }
}

TEST_F(KeyTableTest, AcceptedValuesAreStoredAndAReloadChangesReloadableKeysOnly) {
  for (const sExpectation& key : kExpectations) {
    const std::vector<std::string> values = samples(key);
    for (const std::string& value : values) {
      ASSERT_EQ(load({{key.key, written(key, value)}}), 0) << key.key << installation.log();
      EXPECT_EQ(settingText(key.key), value) << key.key;
    }
    if (values.size() < 2) continue;
    const std::string& first = values.back();
    const std::string& last = values.front();
    ASSERT_EQ(load({{key.key, written(key, last)}}, true), 0);
    EXPECT_EQ(settingText(key.key), key.reloadable ? last : first) << key.key;
    if (key.absent == kRequired) continue;
    ASSERT_EQ(load({}, true), 0);
    EXPECT_EQ(settingText(key.key), key.reloadable ? key.absent : first)
        << key.key << " taken out of the file";
  }
}

// ---- Keys with rules of their own ----

TEST_F(KeyTableTest, NumberOfPhonesIsEvenPositiveAndAtMostAThousandAskedInThisOrder) {
  const std::vector<std::pair<const char*, Values>> refused = {
      {"is not even\n", {"7", "-1", "1001", "99999999999"}},
      {"is not positive\n", {"0", "-2", "-99999999998"}},
      {"is more than 1000\n", {"1002", "99999999998"}}};
  for (const auto& [expected, values] : refused)
    for (const std::string& value : values) {
      EXPECT_EQ(load({{"NumPhonesToAllocate", value}}), 2);
      expectOnlyError("value of NumPhonesToAllocate " + std::string(expected));
    }
}

TEST_F(KeyTableTest, RefreshRateBelowTwoBecomesTwo) {
  for (const char* value : {"-5", "0", "1"}) {
    ASSERT_EQ(load({{"RefreshRateOfRealTimeStatistics", value}}), 0);
    EXPECT_EQ(iRefreshRateOfRealTimeStatistics, 2);
  }
  EXPECT_EQ(installation.logCount("RefreshRate"), 0);
}

TEST_F(KeyTableTest, AddressesThatCannotBeResolvedStopLoading) {
  for (const char* key : {"SipProxyIP", "SipUAIP", "SipUAIPForBinding"}) {
    EXPECT_EQ(load({{key, "1.2.3.4.5"}}), 2);
    EXPECT_EQ(installation.logCount(" ERROR in MyConfiguration::readParams, value of " + std::string(key) +
                                    " can not be traslated to valid IP\n"),
              1);
  }
}

TEST_F(KeyTableTest, RulesMayFillTheirKeyButNotMore) {
  // Ten rules of 166 + 1 + 99 characters and their semicolons stay below the limit of the text; blanks cannot
  // stand in it, so only a long destination can exceed it.
  for (const char* key : {"CmdBasedOnCallerID", "CmdBasedOnDestination"})
    for (const std::size_t length : {2669U, 2670U}) {
      EXPECT_EQ(load({{key, std::string(length - 1, 'x')}}), 2);
      EXPECT_EQ(installation.logCount("value of " + std::string(key) + " is too long\n"),
                length == 2670 ? 1 : 0);
    }
  EXPECT_EQ(load({{"DefaultCmd", "*##1" + std::string(95, 'x')}}), 0);
  EXPECT_EQ(load({{"DefaultCmd", "*##1" + std::string(96, 'x')}}), 2);
  expectOnlyError("value of DefaultCmd is too long\n");
}

TEST_F(KeyTableTest, ExpressionsAreSplitAndLimitedInNumberAndLength) {
  const std::string longest(49, 'x');
  const std::string ten = "1;2;3;4;5;6;7;8;9;10";
  const std::vector<std::pair<std::string, std::string>> accepted = {
      {"a;b", "a;b;"},         {"a;b;", "a;b;"}, {"a;;b", "a;;b;"},        {"a;;", "a;;"},   {";", ";"},
      {"a b ; c", "a b ; c;"}, {ten, ten + ";"}, {longest, longest + ";"}, {"a;b\r", "a;b;"}};
  for (const char* key : {"DOSExpressions", "AOSExpressions", "PSHExpressions"}) {
    for (const auto& [value, expected] : accepted) {
      EXPECT_EQ(load({{key, value}}), 0) << value;
      EXPECT_EQ(settingText(key), expected);
    }
    EXPECT_EQ(load({{key, ten + ";11"}}), 2);
    expectOnlyError("value of " + std::string(key) + " contains more than 10 expressions\n");
    EXPECT_EQ(load({{key, "a;" + longest + "x"}}), 2);
    expectOnlyError("value of " + std::string(key) + " contains an expression with size greater than 50\n");
  }
}

TEST_F(KeyTableTest, RoutingFileIsReadWithItsKey) {
  installation.write("routes", "10.0.0.5::5070::2???@10.0.0.1;\n");
  ASSERT_EQ(load({{"SipRoutingFile", "routes"}}), 0);
  EXPECT_EQ(iNumSipRoutingRecords, 1);
  ASSERT_EQ(load(), 0);
  EXPECT_EQ(iNumSipRoutingRecords, 0);

  EXPECT_EQ(load({{"SipRoutingFile", "missing"}}), 2);
  EXPECT_EQ(installation.logCount(" ERROR in MyConfiguration::readParams, Invalid sip routing file " +
                                  binPath() + "missing\n"),
            1);
}

// ---- Computed defaults ----

TEST_F(KeyTableTest, OwnAddressIsTheOneThatReachesThePbx) {
  ASSERT_EQ(load({{"SipProxyIP", "127.0.0.2"}}), 0);
  EXPECT_EQ(pcSipUAIP, "127.0.0.1");
  EXPECT_EQ(pcSipProxyDomain, "127.0.0.2");
  EXPECT_EQ(pcSipUAIPForBinding, "127.0.0.1");
  EXPECT_EQ(installation.logCount(
                " INFO in MyConfiguration::readParams, The system auto-detected the SipUAIP to be "
                "127.0.0.1\n"),
            1);
}

TEST_F(KeyTableTest, OwnAddressOfTheHostServesWhenThePbxCannotBeReached) {
  // Nothing may be sent to a broadcast address without asking for it, so the probe fails.
  ASSERT_EQ(load({{"SipProxyIP", "255.255.255.255"}}), 0) << installation.log();
  EXPECT_EQ(pcSipUAIP, "192.0.2.77");
  EXPECT_EQ(installation.logCount(
                " ERROR in MyConfiguration::findMyIP, Unable to connect socket. Verify network is "
                "up, SipProxyIP parameter is correct and no other Quorvel is running on this "
                "machine. (err="),
            1);
  EXPECT_EQ(installation.logCount(
                " WARNING in MyConfiguration::readParams, no value given in conf-file for SipUAIP "
                "and it could not be auto-detect. Going to try to detect it internally.\n"),
            1);
}

TEST_F(KeyTableTest, GivenOwnAddressIsUsedForBindingToo) {
  ASSERT_EQ(load({{"SipUAIP", "10.1.2.3"}}), 0);
  EXPECT_EQ(pcSipProxyDomain, "10.1.2.3");
  EXPECT_EQ(pcSipUAIPForBinding, "10.1.2.3");
  EXPECT_EQ(installation.logCount("auto-detected"), 0);
}

}  // namespace
