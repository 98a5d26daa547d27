// A running Quorvel between two plain UDP peers, for tests that must see every byte of what is sent: the
// caller, and the callee in the place of the PBX.
#pragma once

#include <string>

#include "tests/calls/support/CallFixture.h"
#include "tests/support/LoopbackPeer.h"
#include "tests/support/SipText.h"

class TalkFixture : public CallFixture {
 protected:
  void toQuorvel(const LoopbackPeer& from, const std::string& message) { from.sendTo(ports.sip(), message); }
  // The next message, which must begin with that text; empty (and a failure) otherwise.
  std::string expect(LoopbackPeer& at, const std::string& beginning,
                     std::chrono::milliseconds limit = std::chrono::seconds(5));

  // The caller's side of a call; `number` tells calls apart. Format 101 is telephone events.
  std::string invite(int number = 1, const std::string& formats = "0 8") const;
  std::string inDialog(const std::string& method, int cseq, const std::string& answer, int number = 1) const;
  std::string answer(const std::string& receivedInvite) const;

  // Messages of a call that was set up as they went.
  struct Call {
    int number = 1;
    std::string invite{};  // as the callee received it
    std::string ok{};      // as the caller received it
  };
  Call setUp(int number = 1, const std::string& formats = "0 8");
  void hangUp(const Call& call);

  LoopbackPeer caller{ports.phone(0)};
  LoopbackPeer callee{ports.pbx()};
};
