// Two headless phones with different talkers, and the judgement of what each heard of the other.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "tests/calls/support/Baresip.h"
#include "tests/calls/support/CallFixture.h"

struct PairSetup {
  std::string callerCodec = "PCMU/8000/1";
  std::string calleeCodec = "PCMU/8000/1";
  int calleePort = 0;                    // SIP port of the callee
  int registrar = 0;                     // both register there; 0: neither does
  std::optional<int> calleeRegistrar{};  // the callee registers there instead, or with 0 nowhere
  std::string password{};
  std::string callerDomain = "127.0.0.1";
  int registerSeconds = 60;
  int times = 1;  // how often each says its text: a call ends when one has no more to say
};

class PhonePair {
 public:
  // 100 calls, 200 is called.
  PhonePair(const std::filesystem::path& directory, const PortBlock& ports, const PairSetup& setup);

  void expectReady();
  // One calls the other at that address, both talk for so long, the caller hangs up.
  void talk(Baresip& from, Baresip& to, const std::string& uri, Seconds duration);
  // Each heard the other, not itself, in (nearly) every half second.
  void expectBothHeard(double correlation);
  // From now on, for so long, in a call that goes on: each hears the other, whatever came before.
  void expectBothHear(Seconds duration, double correlation);
  // What 100 and 200 say.
  const Sound& firstSaid() const { return firstPlays; }
  const Sound& secondSaid() const { return secondPlays; }

  std::unique_ptr<Baresip> first;   // user 100
  std::unique_ptr<Baresip> second;  // user 200

 private:
  // What 100 and 200 hear in so long a time from now on.
  std::pair<Sound, Sound> heardSince(Seconds duration);

  const Sound firstPlays;
  const Sound secondPlays;
  const double textSeconds;  // of the longer text
};

class PhonesFixture : public CallFixture {
 protected:
  void SetUp() override { needs({"baresip", "espeak-ng", "sox"}); }
  PhoneSetup phone(int number, const std::string& user, int sipPort, const std::string& codec,
                   Sound plays) const {
    return {.user = user,
            .sipPort = sipPort,
            .controlPort = ports.control(number),
            .mediaPort = ports.media(number),
            .codec = codec,
            .plays = std::move(plays)};
  }
  // Number 200 as Quorvel is called for it.
  std::string calleeUri() const { return "sip:200@127.0.0.1:" + std::to_string(ports.sip()); }
};
