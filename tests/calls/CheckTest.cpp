// quorvelctl before a process runs: what it says of configurations, and that those shipped do what they
// promise.
#include "tests/calls/support/ControlFixture.h"

namespace {

class CheckTest : public ControlFixture {
 protected:
  std::string other() const { return (scratch.path() / "other.conf").string(); }  // another instance's file
};

// What a reload does not change is said, and which keys where the file of the start is known.
TEST_F(CheckTest, AReloadSaysWhatWaitsForARestart) {
  start();
  EXPECT_NE(control({"explain", "100", "200", "7@127.0.0.1##2##Al"}).text.find("display name"),
            std::string::npos);
  const Answer reloaded = control({"reload"});
  EXPECT_EQ(reloaded.text, "");
  EXPECT_EQ(reloaded.status, 0);
  EXPECT_TRUE(quorvel->logged("Going to reload configuration file"));

  const std::filesystem::path loaded = quorvel->bin() / ("loaded" + quorvel->instanceName());
  const std::string first = readFile(quorvel->configuration());
  quorvel->writeConfiguration({{"DefaultCmd", "*##1"}, {"CPUPower", "4"}, {"NumCallsToFilter", "1"}});
  EXPECT_NE(control({"status"}).text.find("was changed after the process started"), std::string::npos);
  writeFile(loaded, first);
  EXPECT_NE(control({"reload"}).text.find("but DefaultCmd, CPUPower, NumCallsToFilter of"),
            std::string::npos);
  EXPECT_NE(control({"explain", "100", "200"}).text.find("DefaultCmd, CPUPower"), std::string::npos);
  const std::string state = control({"status", "--json"}).text;
  EXPECT_NE(state.find("[\"DefaultCmd\", \"CPUPower\", \"NumCallsToFilter\"]"), std::string::npos) << state;
  EXPECT_NE(state.find("\"calls_allowed\": 4"), std::string::npos) << state;

  quorvel->writeConfiguration({{"CPUPower", "12"}});
  EXPECT_EQ(control({"reload"}).status, 1);
  EXPECT_EQ(quorvel->logCount("Going to reload configuration file"), 2);
}

TEST_F(CheckTest, ConfigurationsAreChecked) {
  start();
  struct Case {
    int status;
    Settings settings;
    std::vector<std::string> found;
  };
  const std::string rtp = std::to_string(ports.relay());
  // Sorted by key, as the file is written.
  const std::vector<Case> cases = {
      {0, {}, {"The configuration is valid."}},
      {1,
       {{"CPUPower", "11"},
        {"NoSuchKey", "1"},
        {"SipUAPort", "0"},
        {"SipDebug", "2"},
        {"DTMFDisable", "112"}},
       {"quorvel.conf:3: error: CPUPower: value of CPUPower is not between 0 to 10", "warning: NoSuchKey",
        ": error: SipUAPort: is no port", "SipDebug: value of SipDebug is not 0 or 1",
        "quorvel.conf:6: warning: DTMFDisable: repeats a digit",
        "NumCallsToFilter: the voice engine has room for 3 calls"}},
      {1,
       {{"CmdBasedOnCallerID", "1??@127.0.0.1"},
        {"CmdBasedOnDestination", "2??@127.0.0.1=*##4;3??@127.0.0.1=*##1;400"},
        {"DefaultCmd", "*"},
        {"OrigPhonesName", "a;b;"}},
       {"conf:5: error: CmdBasedOnCallerID: pcCmdBasedOnCallerID containes a command",
        "conf:6: error: CmdBasedOnDestination: invalid cleaning type (4)",
        "conf:6: error: CmdBasedOnDestination: pcCmdBasedOnDestination containes a command (400) with no = "
        "sign",
        "conf:8: error: DefaultCmd: unable to find destination in *",
        "error: OrigPhonesName: not enough names"}},
      {0,
       {{"CPUPower", "abc"}, {"ThresholdToHighlightMOS", "3,6"}},
       {"CPUPower: is no number", "ThresholdToHighlightMOS: is read only up to"}},
      {0,
       {{"AOSExpressions", "66?"},
        {"CmdBasedOnCallerID", "1??@127.0.0.1=*##1;12?@127.0.0.1=*##2"},
        {"DTMFActivatePrefix", "*5x"},
        {"DTMFRegistraterPrefix", "*1*"},
        {"NeedToDoNoiseCancellation", "0"},
        {"RTPTimeoutInSeconds", "0"},
        {"RegisterPairPhones", "1"},
        {"RegisterTrunk", "1"},
        {"SipRoutingFile", "routing.conf"},
        {"StartWithFilterActivated", "0"}},
       {"the pattern 66? has no @", "has no effect: DOSExpressions bars nobody",
        "the pattern 12?@127.0.0.1 decides nothing: 1??@127.0.0.1 before it",
        "DTMFActivatePrefix: cannot be dialled", "DTMFRegistraterPrefix: has no effect, since DTMFSuffix",
        "whatever the type, nothing is processed", "RTPTimeoutInSeconds: ends every such call at once",
        "RegisterPairPhones: no Secret is set", "RegisterTrunk: registers nothing",
        "routing.conf:1: warning: has no ; behind its last expression, which is",
        "routing.conf:2: warning: has no expression", "StartWithFilterActivated: is 0, and",
        "SipRoutingFile: the pattern 2?? has no @"}},
      {1,
       {{"SipRoutingFile", "bad.conf"}},
       {"bad.conf:1: error: unable to read IP", "bad.conf:3: error: unable to read valid port"}},
      {1,
       {{"AOSExpressions", "9??@127.0.0.1"},
        {"CmdBasedOnCallerID", "1??@127.0.0.1=*##1; 2??@h=*##2"},
        {"CmdBasedOnDestination", "3*@127.0.0.1=200##1"},
        {"DOSExpressions", "1??@127.0.0.1; 2??@127.0.0.1"},
        {"DefaultCmd", "sip:200@127.0.0.1##3"},
        {"InviteShouldMatchPairPhoneName", "1"},
        {"OrigPhonesName", "a;a;" + std::string(100, 'b') + ";c"},
        {"RTPTimeoutInSeconds", "4294967326"},
        {"RegisterExpiration", "1"},
        {"RegisterOrigPhones", "1"},
        {"Secret", "hidden word"},
        {"\tCPUPower", "3"}},
       {"AOSExpressions: the pattern 9??@127.0.0.1 excepts nobody",
        "CmdBasedOnCallerID: is read only up to its first blank: 2??@h=*##2 is ignored",
        "every character but ? stands for itself", "the destination \"200\" is neither * nor user@host",
        "the expression \" 2??@127.0.0.1\" begins", "must not begin with sip:", "refuses every call with 486",
        ": error: OrigPhonesName: name of phone 2 is longer", "RTPTimeoutInSeconds: is beyond every number",
        "every 1 s", "Secret: is read only up to its first blank\n", "conf:2: warning: a tab or a control"}},
      {0,
       {{"SipProxyIP", "192.0.2.77"}, {"SipUAIPForBinding", "127.0.0.010"}},
       {"SipUAIP: is this host's own for itself", "SipUAIPForBinding: is the address 127.0.0.8"}},
      {0,
       {{"NeedToCheckDTMF", "1"},
        {"NeedToDoAEC", "1"},
        {"NeedToDoNoiseCancellation", "0"},
        {"SipUAIP", "0.0.0.0"}},
       {"NeedToCheckDTMF: has no effect", "SipUAIP: is no address that others can send media to"}},
      {0,
       {{"DTMFActivatePrefix", "12"}, {"DTMFDisable", "3124"}, {"DTMFSuffix", "4"}},
       {"DTMFActivatePrefix: is part of DTMFDisable", "DTMFSuffix: is part of DTMFDisable"}},
      {0,
       {{"DTMFActivatePrefix", "*2*"},
        {"DTMFFailToneFile", "../log"},
        {"DTMFOKToneFile", "tone"},
        {"DTMFRegistraterPrefix", "1" + std::string(99, '*')},
        {"DTMFSuffix", "*"}},
       {"activation without a name cannot be dialled", "../log is a directory",
        "DTMFOKToneFile: is longer than 2 s", "RegistrationLibrary is not set",
        "is longer than the 99 digits"}},
      {0,
       {{"DefaultCmd", ""}, {"CmdBasedOnDestination", "2??@192.0.2.9=*##1;30?=*##1"}},
       {"DefaultCmd: is not set", "matches only names at 192.0.2.9", "the pattern 30? has no @"}},
      {0,
       {{"RealTimeAverageStatisticsFile", "page"},
        {"ThresholdToHighlightEchoLevel", "99999"},
        {"ThresholdToHighlightJitter", "9999"},
        {"ThresholdToHighlightDelay", "0"},
        {"ThresholdToHighlightAGCCoef", "150"},
        {"ThresholdToHighlightMOS", "0.5"},
        {"ThresholdToHighlightPacketLoss", "nan"}},
       {"EchoLevel: never", "Jitter: never", "Delay: always", "AGCCoef: never", "MOS: never",
        "PacketLoss: never"}},
      {0,
       {{"StatisticsFile", "../log/../bin/page"},
        {"RealTimeAverageStatisticsFile", "page"},
        {"OrigRecordingLibrary", "../nosuch/"},
        {"CleanRecordingLibrary", "../log"},
        {"RegistrationLibrary", "/voices/"}},
       {"names the same file as StatisticsFile", "nosuch does not exist",
        "CleanRecordingLibrary: does not end with a slash", "although it begins with a slash"}},
      {1,
       {{"SipProxyPort", std::to_string(ports.sip())}, {"SipUAPort", std::to_string(ports.pbx())}},
       {"SipProxyPort: each is the PBX of the other", "SipUAPort: is in use on this host"}},
      {0,
       {{"SipUAPort", rtp}},
       {"SipUAPort: lies among the RTP ports", "SipUAPort: lies among the RTP ports of " + other(),
        "RTP ports overlap those of " + other()}},
      {0,
       {{"SipUAIPForBinding", "0.0.0.0"}, {"StatisticsFile", "../log/../bin/statistics"}},
       {"SipUAPort: is shared with " + other(), "StatisticsFile: is shared with " + other()}}};
  writeFile(quorvel->bin() / "routing.conf", "127.0.0.1::1::2??;x\n127.0.0.1::2::\n");
  writeFile(quorvel->bin() / "tone", std::string(40000, ' '));
  writeFile(quorvel->bin() / "bad.conf", "127.0.0.1\n127.0.0.1::1::2;\n127.0.0.1::x::\n");
  quorvel->writeConfiguration({{"StatisticsFile", "statistics"}});
  std::filesystem::copy(quorvel->configuration(), other());
  for (const Case& each : cases) {
    quorvel->writeConfiguration(each.settings);
    const Answer checked = control({"check", other()});
    EXPECT_EQ(checked.status, each.status) << checked.text;
    for (const std::string& found : each.found)
      EXPECT_NE(checked.text.find(found), std::string::npos) << found << " is not in\n" << checked.text;
  }
}

TEST_F(CheckTest, ErrorsOfAllFilesAreSaidWithLineAndKey) {
  start();
  writeFile(other(), "CPUPower=11\nSipDebug 1\nSecret=\nSipUAPort=" + std::to_string(callee.port()) +
                         "\nSipUAIPForBinding=127.0.0.1\n");
  quorvel->writeConfiguration({{"CPUPower", "12"}});
  const Answer bad = control({"--json", "check", other()});
  EXPECT_NE(bad.text.find("{\"level\": \"error\", \"file\": \"" + other() +
                          "\", \"line\": 1, \"key\": \"CPUPower\""),
            std::string::npos)
      << bad.text;
  EXPECT_NE(bad.text.find("quorvel.conf\", \"line\": 3, \"key\": \"CPUPower\""), std::string::npos);
  const Answer slips =
      controlAsGiven({"-c", other(), "check"}, {{"KESTROVA_BIN", quorvel->bin().string() + "/"}});
  for (const char* found :
       {":2: warning: has no = sign and is ignored: SipDebug 1", ":3: warning: Secret: has no value",
        ":4: error: SipUAPort: is in use on this host"})
    EXPECT_NE(slips.text.find(found), std::string::npos) << slips.text;
}

// The settings of a file, for a PBX and a Quorvel on different hosts.
Settings shippedCase(const char* name, const PortBlock& ports) {
  Settings settings;
  std::istringstream lines(readFile(std::filesystem::path(QUORVEL_CASES) / name));
  for (std::string line; std::getline(lines, line);)
    if (const std::size_t equals = line.find('='); !line.starts_with(';') && equals != std::string::npos)
      settings[line.substr(0, equals)] = line.substr(equals + 1);
  for (const auto& [key, value] : QuorvelProcess::workingConfiguration(ports))
    if (key.ends_with("Port") || key == "RtpUAPortInitVal") settings[key] = value;
  settings["SipUAIP"] = "192.0.2.5";
  settings["SipUAIPForBinding"] = "127.0.0.1";
  return settings;
}

// A PBX that has Quorvel as its trunk dials numbers at Quorvel's address, and gets the call back.
TEST_F(CheckTest, ShippedCasesServeAPbxThatHasUsAsItsTrunk) {
  for (const auto& [name, type] :
       {std::pair("in-front-of-a-pbx.conf", "both directions (type 3)"),
        std::pair("noise-reduction-to-a-trunk.conf", "what the caller says (type 1)")}) {
    start(shippedCase(name, ports));
    EXPECT_EQ(control({"check"}).status, 0);
    const std::string explained = control({"explain", "100", "0891234567"}).text;
    EXPECT_NE(explained.find(type), std::string::npos) << explained;
    EXPECT_EQ(explained.find("but with"), std::string::npos) << explained;

    toQuorvel(callee, sip_text::replaced(invite(), "sip:200@127.0.0.1", "sip:0891234567@192.0.2.5"));
    const std::string back = expect(callee, "INVITE sip:0891234567@192.0.2.5 SIP/2.0");
    EXPECT_NE(sip_text::header(back, "From").find("<sip:100@127.0.0.1>"), std::string::npos)
        << "the called phone cannot call back";
    toQuorvel(callee, answer(back));
    expect(callee, "SIP/2.0 200 ");
    EXPECT_EQ(quorvel->activeCalls(), 1);
    ASSERT_EQ(quorvel->stop(), 0);
    while (!callee.quiet()) continue;  // the BYEs of its end
  }
}

}  // namespace
