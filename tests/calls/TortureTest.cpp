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

// What a message causes, by its label: an INVITE to the PBX, an answer, or, when it is dropped, a record ("":
// none).
struct Outcome {
  std::string seen;
  std::string logged{};
};
const std::map<std::string, Outcome> kOutcomes = {
    // Valid calls, and calls whose faults do not matter to one who passes them on.
    {"esc01", {"INVITE sip:%75se%72@example.com SIP/2.0"}},
    {"badinv01", {"INVITE sip:j.user@example.com SIP/2.0"}},
    {"clerr", {"INVITE sip:j.user@example.com SIP/2.0"}},
    {"ncl", {"INVITE sip:j.user@example.com SIP/2.0"}},
    {"ltgtruri", {"INVITE sip:user@example.com SIP/2.0"}},
    {"lwsruri", {"INVITE sip:user@example.com SIP/2.0"}},
    {"lwsstart", {"INVITE sip:user@example.com SIP/2.0"}},
    {"escruri", {"INVITE sip:user@example.com SIP/2.0"}},
    {"baddate", {"INVITE sip:user@example.com SIP/2.0"}},
    {"invut", {"INVITE sip:j.user@example.com SIP/2.0"}},
    {"sdp01", {"INVITE sip:j_user@example.com SIP/2.0"}},
    {"multi01", {"INVITE sip:user@example.com SIP/2.0"}},
    // Questions whether we are alive are answered whatever else they say.
    {"lwsdisp", {"SIP/2.0 200 Ok"}},
    {"semiuri", {"SIP/2.0 200 Ok"}},
    {"transports", {"SIP/2.0 200 Ok"}},
    {"trws", {"SIP/2.0 200 Ok"}},
    {"badaspec", {"SIP/2.0 200 Ok"}},
    {"baddn", {"SIP/2.0 200 Ok"}},
    {"badvers", {"SIP/2.0 200 Ok"}},
    {"mismatch01", {"SIP/2.0 200 Ok"}},
    {"badbranch", {"SIP/2.0 200 Ok"}},
    {"unkscm", {"SIP/2.0 200 Ok"}},
    {"novelsc", {"SIP/2.0 200 Ok"}},
    {"bext01", {"SIP/2.0 200 Ok"}},
    {"mcl01", {"SIP/2.0 200 Ok"}},
    {"zeromf", {"SIP/2.0 200 Ok"}},
    // Registrations of phones.
    {"dblreq", {"SIP/2.0 200 Ok"}},
    {"cparam01", {"SIP/2.0 200 Ok"}},
    {"cparam02", {"SIP/2.0 200 Ok"}},
    // Dropped.
    {"wsinv", {"", "unable to find To: in"}},
    {"intmeth", {""}},
    {"escnull", {"", "IP address to long"}},
    {"esc02", {""}},
    {"longreq", {"", "message of 3515 bytes cut to 2999\n"}},
    {"mpart01", {""}},
    {"unreason", {"", "no match for OK for Invite Msg\n"}},
    {"noreason", {"", "no match for Trying Msg\n"}},
    {"scalar02", {"", "unable to read CSeq from "}},
    {"scalarlg", {"", "unable to read CSeq from "}},
    {"quotbal", {"", "error analyzing the To String"}},
    {"regbadct", {"", "unable to read port from "}},
    {"mismatch02", {""}},
    {"bigcode", {""}},
    {"insuf", {""}},
    {"unksm2", {"", "unable to find sip: in the string"}},
    {"regaut01", {"", "unable to find Contact: in"}},
    {"bcast", {"", "no match for OK for Invite Msg\n"}},
    {"regescrt", {"", "unable to find Contact: in"}},
    {"inv2543", {"", "unable to find tag in"}},
};

TEST_F(TortureTest, EveryMessageOfTheRfcHasItsOutcomeAndLeavesNothingBehind) {
  start({{"SipDebug", "0"}});
  std::size_t messages = 0;
  for (const auto& file : std::filesystem::directory_iterator(QUORVEL_TORTURE_MESSAGES)) {
    SCOPED_TRACE(file.path());
    const std::string message = readFile(file.path());
    const auto& [seen, logged] = kOutcomes.at(file.path().stem());
    const std::size_t before = quorvel->log().size();
    ++messages;
    toQuorvel(caller, message);
    ASSERT_TRUE(alive());
    const std::string records = quorvel->log().substr(before);
    if (seen.empty()) {
      EXPECT_FALSE(caller.receive(std::chrono::milliseconds(0)).has_value());
      EXPECT_TRUE(logged.empty() ? records.empty() : records.find(logged) != std::string::npos) << records;
    } else if (seen.starts_with("SIP/2.0")) {
      expect(caller, seen);
    } else {
      toQuorvel(callee, sip_text::respond(expect(callee, seen), "603 Decline", "bob"));
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
    EXPECT_EQ(quorvel->activeCalls(), 0);
  }
  EXPECT_EQ(messages, kOutcomes.size());
  // Every slot can be had again.
  std::vector<Call> calls;
  for (int number = 1; number <= 4; ++number) calls.push_back(setUp(number));
  for (const Call& call : calls) hangUp(call);
}

}  // namespace
