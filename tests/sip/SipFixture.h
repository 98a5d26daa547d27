// A SIP engine on loopback between a caller and a PBX, both played by the test: send a message, let the
// engine work, and look at what arrives on either side. The clock stands still unless the test moves it.
#pragma once

#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <string_view>

#include "sip/MySip.h"
#include "tests/support/LoopbackPeer.h"
#include "tests/support/SipText.h"
#include "tests/support/TestInstallation.h"

class SipFixture : public ::testing::Test {
 protected:
  static constexpr std::time_t kStart = 1'700'000'000;

  SipFixture();
  ~SipFixture() override;

  // Initialises the engine from the settings, which a test may have changed before. All identities are active
  // and no tick is due.
  void start();
  // Sends to the engine and lets it handle all that waits.
  void fromCaller(std::string_view message);
  void fromPbx(std::string_view message);
  void process();
  // Moves the clock and lets the maintenance tick run once per second.
  void passSeconds(int seconds);

  // The next message at a peer. Fails the test when there is none.
  std::string atCaller();
  std::string atPbx();
  void expectSilence();

  // A call set up as far as named; the messages it took are kept below.
  std::string inviteText() const { return sip_text::build(invite); }
  void ring();
  void answer();
  // The caller's ACK, BYE and CANCEL for the invite.
  std::string callerRequest(std::string_view method, int cseq) const;

  TestInstallation installation;
  void endMedia();

  LoopbackPeer caller;
  LoopbackPeer pbx;
  int iSipPort = 0;
  sip_text::Request invite;
  std::string pairInvite;    // as the PBX received it
  std::string callerAnswer;  // the 200 as the caller received it
  std::unique_ptr<MySip> sip;
};
