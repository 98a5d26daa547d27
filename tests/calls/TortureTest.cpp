// Messages made to break parsers: each has the outcome that is right for a server that looks headers up in
// the text, and none leaves a trace.
#include <map>

#include "tests/calls/support/TalkFixture.h"
#include "tests/calls/support/TortureMessages.h"

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

// What a message that is not dropped causes: an INVITE to the PBX, or an answer.
const std::map<std::string, std::string> kOutcomes = {
    // Valid calls, and calls whose faults do not matter to one who passes them on.
    {"EscapedUri", "INVITE sip:%75se%72@example.com SIP/2.0"},
    {"ExtraSeparators", "INVITE sip:j.user@example.com SIP/2.0"},
    {"ContentLengthTooLarge", "INVITE sip:j.user@example.com SIP/2.0"},
    {"ContentLengthNegative", "INVITE sip:j.user@example.com SIP/2.0"},
    {"BracketedRequestUri", "INVITE sip:user@example.com SIP/2.0"},
    {"SpaceInRequestUri", "INVITE sip:user@example.com SIP/2.0"},
    {"SpacesInStartLine", "INVITE sip:user@example.com SIP/2.0"},
    {"EscapedHeadersInUri", "INVITE sip:user@example.com SIP/2.0"},
    {"BadTimeZone", "INVITE sip:user@example.com SIP/2.0"},
    {"UnknownContentType", "INVITE sip:j.user@example.com SIP/2.0"},
    {"UnacceptableAccept", "INVITE sip:j_user@example.com SIP/2.0"},
    // Questions whether we are alive are answered whatever else they say.
    {"NoSpaceBeforeAngleBracket", "SIP/2.0 200 Ok"},
    {"SemicolonsInUser", "SIP/2.0 200 Ok"},
    {"ManyTransports", "SIP/2.0 200 Ok"},
    {"SpacesAtEndOfStartLine", "SIP/2.0 200 Ok"},
    {"SpacesInAddrSpec", "SIP/2.0 200 Ok"},
    {"NonTokenDisplayName", "SIP/2.0 200 Ok"},
    {"UnknownVersion", "SIP/2.0 200 Ok"},
    {"MethodMismatch", "SIP/2.0 200 Ok"},
    {"MissingTransactionIdentifier", "SIP/2.0 200 Ok"},
    {"UnknownScheme", "SIP/2.0 200 Ok"},
    {"KnownButAtypicalScheme", "SIP/2.0 200 Ok"},
    {"UnknownExtensions", "SIP/2.0 200 Ok"},
    {"TwoContentLengths", "SIP/2.0 200 Ok"},
    {"MaxForwardsZero", "SIP/2.0 200 Ok"},
    // Registrations of phones.
    {"TwoRequestsInOneDatagram", "SIP/2.0 200 Ok"},
    {"ContactHeaderParameter", "SIP/2.0 200 Ok"},
    {"ContactUriParameter", "SIP/2.0 200 Ok"},
};

TEST_F(TortureTest, EveryMessageOfTheRfcHasItsOutcomeAndLeavesNothingBehind) {
  start({{"SipDebug", "0"}});
  std::size_t withOutcome = 0;
  for (const TortureMessage& message : tortureMessages()) {
    SCOPED_TRACE(message.name);
    const auto outcome = kOutcomes.find(message.name);
    withOutcome += outcome != kOutcomes.end();
    toQuorvel(caller, wireText(message));
    ASSERT_TRUE(alive());
    if (outcome == kOutcomes.end()) {
      EXPECT_FALSE(caller.receive(std::chrono::milliseconds(0)).has_value());
    } else if (outcome->second.starts_with("SIP/2.0")) {
      expect(caller, outcome->second);
    } else {
      toQuorvel(callee, sip_text::respond(expect(callee, outcome->second), "603 Decline", "bob"));
      const std::string declined = expect(caller, "SIP/2.0 603 Decline");
      EXPECT_NE(wireText(message).find(sip_text::header(declined, "Call-ID")), std::string::npos);
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
