// The messages of RFC 4475, which are made to break parsers: each has the outcome that is right for a server
// that looks headers up in the text, and none leaves a trace.
#include <map>

#include "tests/calls/support/TalkFixture.h"

namespace {

class TortureTest : public TalkFixture {
 protected:
  // Has everything been handled that was sent before?
  bool alive() {
    LoopbackPeer asker;
    asker.sendTo(ports.sip(), sip_text::build({.method = "OPTIONS", .viaPort = asker.port()}));
    return asker.receive(std::chrono::seconds(10)).has_value();
  }
};

// What a message that is not dropped causes, by its label: an INVITE to the PBX, or an answer.
const std::map<std::string, std::string> kOutcomes = {
    // Valid calls, and calls whose faults do not matter to one who passes them on.
    {"esc01", "INVITE sip:%75se%72@example.com SIP/2.0"},
    {"badinv01", "INVITE sip:j.user@example.com SIP/2.0"},
    {"clerr", "INVITE sip:j.user@example.com SIP/2.0"},
    {"ncl", "INVITE sip:j.user@example.com SIP/2.0"},
    {"ltgtruri", "INVITE sip:user@example.com SIP/2.0"},
    {"lwsruri", "INVITE sip:user@example.com SIP/2.0"},
    {"lwsstart", "INVITE sip:user@example.com SIP/2.0"},
    {"escruri", "INVITE sip:user@example.com SIP/2.0"},
    {"baddate", "INVITE sip:user@example.com SIP/2.0"},
    {"invut", "INVITE sip:j.user@example.com SIP/2.0"},
    {"sdp01", "INVITE sip:j_user@example.com SIP/2.0"},
    // Questions whether we are alive are answered whatever else they say.
    {"lwsdisp", "SIP/2.0 200 Ok"},
    {"semiuri", "SIP/2.0 200 Ok"},
    {"transports", "SIP/2.0 200 Ok"},
    {"trws", "SIP/2.0 200 Ok"},
    {"badaspec", "SIP/2.0 200 Ok"},
    {"baddn", "SIP/2.0 200 Ok"},
    {"badvers", "SIP/2.0 200 Ok"},
    {"mismatch01", "SIP/2.0 200 Ok"},
    {"badbranch", "SIP/2.0 200 Ok"},
    {"unkscm", "SIP/2.0 200 Ok"},
    {"novelsc", "SIP/2.0 200 Ok"},
    {"bext01", "SIP/2.0 200 Ok"},
    {"mcl01", "SIP/2.0 200 Ok"},
    {"zeromf", "SIP/2.0 200 Ok"},
    // Registrations of phones.
    {"dblreq", "SIP/2.0 200 Ok"},
    {"cparam01", "SIP/2.0 200 Ok"},
    {"cparam02", "SIP/2.0 200 Ok"},
};

TEST_F(TortureTest, EveryMessageOfTheRfcHasItsOutcomeAndLeavesNothingBehind) {
  start({{"SipDebug", "0"}});
  std::size_t withOutcome = 0;
  for (const auto& file : std::filesystem::directory_iterator(QUORVEL_TORTURE_MESSAGES)) {
    SCOPED_TRACE(file.path());
    const std::string message = readFile(file.path());
    const auto outcome = kOutcomes.find(file.path().stem());
    withOutcome += outcome != kOutcomes.end();
    toQuorvel(caller, message);
    ASSERT_TRUE(alive());
    if (outcome == kOutcomes.end()) {
      EXPECT_FALSE(caller.receive(std::chrono::milliseconds(0)).has_value());
    } else if (outcome->second.starts_with("SIP/2.0")) {
      expect(caller, outcome->second);
    } else {
      toQuorvel(callee, sip_text::respond(expect(callee, outcome->second), "603 Decline", "bob"));
      const std::string declined = expect(caller, "SIP/2.0 603 Decline");
      EXPECT_NE(message.find(sip_text::header(declined, "Call-ID")), std::string::npos);
      toQuorvel(caller, sip_text::build({.method = "ACK",
                                         .callId = sip_text::header(declined, "Call-ID"),
                                         .cseq = std::stoi(sip_text::header(declined, "CSeq")),
                                         .from = sip_text::header(declined, "From"),
                                         .to = sip_text::header(declined, "To")}));
      expect(callee, "ACK ");
    }
    EXPECT_TRUE(callee.quiet()) << "the PBX is told nothing more";
  }
  EXPECT_EQ(withOutcome, kOutcomes.size());
  // Every slot is free again.
  EXPECT_EQ(quorvel->activeCalls(), 0);
  std::vector<Call> calls;
  for (int number = 1; number <= 4; ++number) calls.push_back(setUp(number));
  for (const Call& call : calls) hangUp(call);
}

}  // namespace
