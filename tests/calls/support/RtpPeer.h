// One end of a call's sound, for tests that choose every packet: it sends a steady sample and looks for one.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "tests/calls/support/Process.h"
#include "tests/support/LoopbackPeer.h"

// A steady sample as one codec writes it. The two are the same sound: G.711 decodes the first to 15,996 and
// encodes that as the second.
struct SteadySound {
  int payloadType = 0;
  char code = 0;
};
inline constexpr SteadySound kSteadyPcmu{0, '\x90'};
inline constexpr SteadySound kSteadyPcma{8, '\xBA'};

class RtpPeer {
 public:
  explicit RtpPeer(int port) : socket(port) {}

  // Sends a packet every 20 ms to Quorvel's port in that SDP until the other hears the sound as it should.
  bool isHeardBy(RtpPeer& other, const std::string& sdpOfQuorvel, SteadySound sent, SteadySound expected,
                 Seconds limit = Seconds(5)) {
    const int port = portIn(sdpOfQuorvel);
    if (port == 0) return false;
    while (other.socket.receive(std::chrono::milliseconds(0))) {
    }
    return eventually(
        [&] {
          send(port, sent.payloadType, std::string(kSamples, sent.code));
          const auto received = other.socket.receive(std::chrono::milliseconds(20));
          return received && received->size() == kHeader + kSamples &&
                 (received->at(1) & 0x7F) == expected.payloadType &&
                 received->find_first_not_of(expected.code, kHeader) == std::string::npos;
        },
        limit);
  }

  // Quorvel's audio port in an SDP of it; 0 without one.
  static int portIn(const std::string& sdpOfQuorvel) {
    const std::size_t line = sdpOfQuorvel.find("m=audio ");
    return line == std::string::npos ? 0 : std::stoi(sdpOfQuorvel.substr(line + 8));
  }
  static std::string packet(std::uint16_t number, std::uint32_t stamp, int payloadType,
                            std::string_view payload) {
    std::string bytes;
    for (const std::uint32_t word :
         {0x80U << 24 | static_cast<unsigned>(payloadType) << 16 | number, stamp, 1U})
      for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(word >> shift);
    return bytes.append(payload);
  }
  // The next 20 ms of sound.
  void send(int port, int payloadType, std::string_view payload) {
    ++sequence;
    socket.sendTo(port, packet(sequence, sequence * kSamples, payloadType, payload));
  }
  // The payload of the next packet; empty when none comes within the time.
  std::string receivePayload(std::chrono::milliseconds limit) {
    const auto received = socket.receive(limit);
    return received && received->size() > kHeader ? received->substr(kHeader) : std::string();
  }

  static constexpr std::size_t kSamples = 160;  // 20 ms

 private:
  static constexpr std::size_t kHeader = 12;

  LoopbackPeer socket;
  std::uint16_t sequence = 0;
};
