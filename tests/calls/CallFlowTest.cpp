// Families of calls between a SIPp that calls Quorvel and a SIPp in the place of the PBX: one row per family.
#include "tests/calls/support/CallFixture.h"
#include "tests/calls/support/Sipp.h"

namespace {

struct Family {
  std::string name;
  Settings settings{};
  std::string caller = "caller";
  Places callerPlaces{};
  std::string callee = "callee";
  Places calleePlaces{};
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
      {.name = "CancelBeforeAnswer", .caller = "caller_cancels", .callee = "callee_cancelled"},
      {.name = "BusyCallee", .caller = "caller_refused", .callee = "callee_refuses"},
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
      {.name = "DisplayNameCommand",
       .settings = {{"CmdBasedOnCallerID", "???@127.0.0.1=300@127.0.0.1##0"}},
       .callerPlaces = {{"display", "\"201@127.0.0.1##0##Alice Smith\""}},
       .calleePlaces = {{"checks", must("", "^INVITE sip:201@127.0.0.1 SIP") +
                                       must("From:", "^ *\"Alice Smith\" <sip:KestrovaPair0@")}}},
      {.name = "CodecListOfTheCaller",
       .settings = {{"CopyCodecListFromInitialInvite", "1"}},
       .callerPlaces = {{"offer", "8 0 101"}, {"answer_checks", must("", kOwnSdp + "8 101")}},
       .calleePlaces = {{"checks", must("", kOwnSdp + "8 0 101")}, {"answer", "8"}}},
      {.name = "OwnCodecList",
       .callerPlaces = {{"offer", "8 0 101"}, {"answer_checks", must("", kOwnSdp + "0 8 101")}},
       .calleePlaces = {{"checks", must("", kOwnSdp + "9 0 8 101")}, {"answer", "8"}}},
  };
}

class CallFlowTest : public CallFixture, public ::testing::WithParamInterface<Family> {
 protected:
  void SetUp() override { needs({"sipp"}); }
};

TEST_P(CallFlowTest, GoesAsExpectedOnBothLegs) {
  const Family& family = GetParam();
  ASSERT_NO_FATAL_FAILURE(start(family.settings));
  Sipp callee(scratch.path(), {.scenario = family.callee,
                               .places = family.calleePlaces,
                               .port = ports.pbx(),
                               .mediaPort = ports.media(1)});
  ASSERT_TRUE(callee.ready());
  Sipp caller(scratch.path(), {.scenario = family.caller,
                               .places = family.callerPlaces,
                               .port = ports.phone(0),
                               .mediaPort = ports.media(0),
                               .target = ports.sip()});

  EXPECT_TRUE(caller.succeeded()) << "caller\n" << caller.report();
  EXPECT_TRUE(callee.succeeded(Seconds(5))) << "callee\n" << callee.report();
  EXPECT_TRUE(eventually([&] { return quorvel->activeCalls() == 0; }, Seconds(3)));
  EXPECT_EQ(quorvel->logCount(" ERROR in "), 0);
}

INSTANTIATE_TEST_SUITE_P(Families, CallFlowTest, ::testing::ValuesIn(families()),
                         [](const auto& row) { return row.param.name; });

}  // namespace
