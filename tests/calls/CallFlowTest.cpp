// Families of calls between a SIPp that calls Quorvel and a SIPp in the place of the PBX: one row per family.
#include <csignal>
#include <gtest/gtest.h>
#include <ostream>

#include "tests/calls/support/PortBlock.h"
#include "tests/calls/support/QuorvelProcess.h"
#include "tests/calls/support/ScratchDirectory.h"
#include "tests/calls/support/Sipp.h"

namespace {

struct Family {
  std::string name;
  Settings settings{};
  std::string caller = "caller";
  Places callerPlaces{};
  std::string callee = "callee";  // empty: nothing may reach the PBX
  Places calleePlaces{};
  std::string routingFile{};  // @CALLEE@ stands for the port of the callee, who then is not at the PBX's
  std::vector<std::string> logged{};
  int signalBefore = 0;  // sent to Quorvel before the call
};

void PrintTo(const Family& family, std::ostream* out) {
  *out << family.name;
}

const std::string kOwnSdp = "m=audio [0-9]+ RTP/AVP ";

std::vector<Family> families() {
  return {
      {.name = "CallerHangsUp",
       .calleePlaces = {{"checks", must("", "^INVITE sip:200@127.0.0.1 SIP/2.0") +
                                       must("", kOwnSdp + "9 0 8 101") +
                                       must("From:", "\"Alice\" <sip:KestrovaPair0@127.0.0.1>") +
                                       mustNot("", "X-Caller:") + mustNot("", "sip:100@")}}},
      {.name = "CalleeHangsUp", .caller = "caller_waits", .callee = "callee_hangs_up"},
      {.name = "EarlyMedia", .caller = "caller_early_media", .callee = "callee_early_media"},
      {.name = "CancelBeforeAnswer", .caller = "caller_cancels", .callee = "callee_cancelled"},
      {.name = "BusyCallee", .caller = "caller_refused", .callee = "callee_refuses"},
      {.name = "RefusalKeepsItsStatusLine",
       .caller = "caller_refused",
       .callerPlaces = {{"code", "603"}, {"refusal", "603 Not Today, Thanks"}},
       .callee = "callee_refuses",
       .calleePlaces = {{"refusal", "603 Not Today, Thanks"}}},
      {.name = "RefusedWhenDraining",
       .caller = "caller_refused",
       .callerPlaces = {{"code", "503"}, {"refusal", "503 Service Unavailable"}},
       .callee = "",
       .logged = {"INFO in sigUsr2Handle, Got shutdown request\n"},
       .signalBefore = SIGUSR2},
      {.name = "BarredCaller",
       .settings = {{"DOSExpressions", "5????@127.0.0.1;1??@127.0.0.1"}, {"AOSExpressions", "15?@127.0.0.1"}},
       .caller = "caller_refused",
       .callerPlaces = {{"code", "503"}, {"refusal", "503 Service Unavailable"}},
       .callee = ""},
      {.name = "ExceptionFromTheBar",
       .settings = {{"DOSExpressions", "1??@127.0.0.1"}, {"AOSExpressions", "15?@127.0.0.1"}},
       .callerPlaces = {{"user", "150"}}},
      {.name = "Options", .caller = "options", .callee = ""},
      {.name = "RecordRoute",
       .callerPlaces = {{"headers", "Record-Route: <sip:10.9.9.1;lr>\nRecord-Route: <sip:10.9.9.2;lr>"},
                        {"answer_checks", must("",
                                               "Record-Route: <sip:127.0.0.1:[0-9]+>[^a-z]*Record-Route: "
                                               "<sip:10.9.9.1;lr>[^a-z]*Record-Route: <sip:10.9.9.2;lr>")}},
       .calleePlaces = {{"checks", must("Record-Route:", "<sip:127.0.0.1:[0-9]+>") + mustNot("", "10.9.9")},
                        {"record_route",
                         "Record-Route: <sip:[local_ip]:[local_port];lr>\n[last_Record-Route:]"},
                        {"ack_checks", must("Route:", "<sip:127.0.0.1:[0-9]+;lr>") + mustNot("", "10.9.9")},
                        {"bye_checks", must("Route:", "<sip:127.0.0.1:[0-9]+;lr>")}}},
      {.name = "PreservedHeaders",
       .settings = {{"PSHExpressions", "X-Account:;P-Asserted-Identity:;X-Missing:"}},
       .callerPlaces = {{"headers",
                         "X-Account: 4711\nX-Private: no\nP-Asserted-Identity: <sip:boss@127.0.0.1>"}},
       .calleePlaces = {{"checks", must("X-Account:", "4711") + mustNot("", "X-Private:") +
                                       must("P-Asserted-Identity:", "<sip:boss@127.0.0.1>")}}},
      {.name = "DisplayNameCommand",
       .settings = {{"CmdBasedOnCallerID", "???@127.0.0.1=300@127.0.0.1##0"}},
       .callerPlaces = {{"display", "\"201@127.0.0.1##0##Alice Smith\""}},
       .calleePlaces = {{"checks", must("", "^INVITE sip:201@127.0.0.1 SIP") +
                                       must("From:", "^ *\"Alice Smith\" <sip:KestrovaPair0@")}}},
      {.name = "CallerRuleComesFirst",
       .settings = {{"CmdBasedOnCallerID", "2??@127.0.0.1=298@127.0.0.1##0;1??@127.0.0.1=300@127.0.0.1##0"},
                    {"CmdBasedOnDestination", "200@127.0.0.1=301@127.0.0.1##0"}},
       .calleePlaces = {{"checks",
                         must("", "^INVITE sip:300@127.0.0.1 SIP") + must("To:", "sip:300@127.0.0.1")}}},
      {.name = "DestinationRule",
       .settings = {{"CmdBasedOnCallerID", "2??@127.0.0.1=298@127.0.0.1##0"},
                    {"CmdBasedOnDestination", "2??@127.0.0.1=301@127.0.0.1##0"}},
       .calleePlaces = {{"checks", must("", "^INVITE sip:301@127.0.0.1 SIP")}}},
      {.name = "RoutingFile",
       .settings = {{"SipRoutingFile", "routes"}},
       .routingFile = "127.0.0.1::9::3??@127.0.0.1;\n127.0.0.1::@CALLEE@::9??@127.0.0.1;2??@127.0.0.1;\n"},
      {.name = "UnboundPhoneFindsNoSlot",
       .settings = {{"InviteShouldMatchPairPhoneName", "1"}, {"PairPhonesName", "200;201;202;203;"}},
       .caller = "caller_refused",
       .callee = "",
       .logged = {"INFO in MySip::analyzeSipMessage, Phone 200", " is not binded\n"}},
      {.name = "PairPhoneImpersonatesTheCaller",
       .settings = {{"PairPhoneShouldImpersonateTheOriginator", "1"}},
       .calleePlaces = {{"checks", must("From:", "\"Alice\" <sip:100@127.0.0.1>") +
                                       must("Contact:", "<sip:KestrovaPair0@127.0.0.1:")}}},
      {.name = "OriginalRequestUri",
       .settings = {{"UseOriginalRURI", "1"}, {"DefaultCmd", "300@127.0.0.1##0"}},
       .callerPlaces = {{"uri", "sip:200@127.0.0.1;user=phone"}},
       .calleePlaces = {{"checks", must("", "^INVITE sip:200@127.0.0.1;user=phone SIP") +
                                       must("To:", "sip:300@127.0.0.1")}}},
      {.name = "CodecListOfTheCaller",
       .settings = {{"CopyCodecListFromInitialInvite", "1"}},
       .callerPlaces = {{"offer", "8 0 101"}, {"answer_checks", must("", kOwnSdp + "8 101")}},
       .calleePlaces = {{"checks", must("", kOwnSdp + "8 0 101")}, {"answer", "8"}}},
      {.name = "OwnCodecList",
       .callerPlaces = {{"offer", "8 0 101"}, {"answer_checks", must("", kOwnSdp + "0 8 101")}},
       .calleePlaces = {{"checks", must("", kOwnSdp + "9 0 8 101")}, {"answer", "8"}}},
  };
}

class CallFlowTest : public ::testing::TestWithParam<Family> {
 protected:
  void SetUp() override {
    if (Process::find("sipp").empty()) GTEST_SKIP() << "SIPp (package sip-tester) is not installed";
  }

  int calleePort() const { return GetParam().routingFile.empty() ? ports.pbx() : ports.phone(1); }

  Settings settings() const {
    const Family& family = GetParam();
    if (!family.routingFile.empty()) {
      std::string text = family.routingFile;
      text.replace(text.find("@CALLEE@"), 8, std::to_string(calleePort()));
      writeFile(scratch.path() / "bin" / "routes", text);
    }
    return family.settings;
  }

  PortBlock ports;
  ScratchDirectory scratch;
};

TEST_P(CallFlowTest, GoesAsExpectedOnBothLegs) {
  const Family& family = GetParam();
  QuorvelProcess quorvel(scratch.path(), ports, settings());
  ASSERT_TRUE(quorvel.ready()) << quorvel.log();
  if (family.signalBefore != 0) {
    quorvel.process().signal(family.signalBefore);
    ASSERT_TRUE(quorvel.logged(family.logged.front()));
  }

  std::unique_ptr<Sipp> callee;
  if (!family.callee.empty()) {
    callee = std::make_unique<Sipp>(scratch.path(), SippRun{.scenario = family.callee,
                                                            .places = family.calleePlaces,
                                                            .port = calleePort(),
                                                            .mediaPort = ports.media(1)});
    ASSERT_TRUE(callee->ready());
  }
  Sipp caller(scratch.path(), {.scenario = family.caller,
                               .places = family.callerPlaces,
                               .port = ports.phone(0),
                               .mediaPort = ports.media(0),
                               .target = ports.sip()});

  EXPECT_TRUE(caller.succeeded()) << "caller\n" << caller.report();
  if (callee != nullptr) {
    EXPECT_TRUE(callee->succeeded(Seconds(5))) << "callee\n" << callee->report();
  }
  EXPECT_TRUE(eventually([&] { return quorvel.activeCalls() == 0; }, Seconds(3)));
  for (const std::string& line : family.logged) EXPECT_TRUE(quorvel.logged(line, Seconds(1))) << line;
  EXPECT_EQ(quorvel.logCount(" ERROR in "), 0) << quorvel.log();
  EXPECT_EQ(quorvel.stop(), 0);
  if (HasFailure()) std::cerr << quorvel.log();
}

INSTANTIATE_TEST_SUITE_P(Families, CallFlowTest, ::testing::ValuesIn(families()),
                         [](const auto& row) { return row.param.name; });

}  // namespace
