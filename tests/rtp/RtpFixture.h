// A relay on loopback between two peers: peer 0 is the phone that placed the call, peer 1 the partner.
#pragma once

#include <cstdint>
#include <functional>
#include <gtest/gtest.h>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "common/Clock.h"
#include "rtp/MyRtp.h"
#include "tests/rtp/FakeEngine.h"
#include "tests/support/LoopbackPeer.h"
#include "tests/support/TestInstallation.h"

inline constexpr int kTelephoneEventPT = 101;

struct Packet {
  int payloadType = 0;
  int sequence = 1;
  std::uint32_t timestamp = 0;
  std::string payload = std::string(160, '\x55');
  std::uint32_t ssrc = 0x11223344;
  bool marker = false;

  std::string bytes() const;
};

// Reads of a packet that was received.
int sequenceOf(const std::string& packet);
std::string payloadOf(const std::string& packet);

using Codecs = std::initializer_list<SUPPORTED_CODECS_IN_QUORVEL>;
CodecList codecList(Codecs codecs);

// One relayed call with both its peers, audio and RTCP sockets.
struct Call {
  explicit Call(Codecs codecs0, Codecs codecs1, const std::string& name = "call");

  // Changes what the relay is asked for; null members point into this object.
  sSessionPairRequest request{};
  int open() { return pair = myRtp.openSessionPair(request); }
  int close() { return myRtp.closeSessionPair(callId[0].c_str(), callId[1].c_str()); }

  sRtpSessionPair& record() const { return myRtp.psPairs[pair]; }
  int relayPort(int side) const { return request.sLeg[side].iLocalRtpPort; }

  // Hands a datagram to the packet path of this thread, as the media thread would.
  int pass(int side, const std::string& datagram) const;
  int pass(int side, const Packet& packet) const { return pass(side, packet.bytes()); }
  // What the peer of that side gets within a second, or an empty text.
  std::string heardBy(int side) { return rtp[side]->receive().value_or(std::string()); }
  bool silent(int side) { return rtp[side]->quiet(); }

  std::string callId[2];
  std::string name[2];
  CodecList codecs[2];
  std::unique_ptr<LoopbackPeer> rtp[2];
  std::unique_ptr<LoopbackPeer> rtcp[2];
  int pair = -1;
};

class RtpTest : public ::testing::Test {
 protected:
  RtpTest();
  ~RtpTest() override;

  // A relay with key sequences: *1 name # learns a voice, *2 name # uses it, *9 ends that; tones of 400 and
  // 800 bytes, voices as bin/voice-*.
  void initWithKeys();

  // Waits, at most two seconds, until the media thread has done something.
  static bool eventually(const std::function<bool()>& done);

  TestInstallation installation;
};
