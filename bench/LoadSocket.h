// What every load generator needs of the machine: a core of its own, a clock that agrees with the kernel's
// packet stamps, and UDP sockets on 127.0.0.1 that tell when each datagram really arrived, so that a late
// wake-up of the generator does not count as delay of what is measured.
#pragma once

#include <array>
#include <cstdint>
#include <netinet/in.h>
#include <optional>
#include <string_view>

#include "common/Handle.h"

using Nanoseconds = std::int64_t;

inline constexpr Nanoseconds kMillisecond = 1'000'000;
inline constexpr Nanoseconds kSecond = 1'000 * kMillisecond;

// Wall clock, the clock of SO_TIMESTAMPNS.
Nanoseconds wallClock();

// Pins this process to a core (-1: leaves it), asks for timers without slack and, if wanted and permitted,
// for real-time priority. Failures are reported on standard error and otherwise ignored.
void prepareGenerator(int core, bool realTime);

sockaddr_in loopback(int port);

class LoadSocket {
 public:
  struct Datagram {
    std::string_view text;  // valid until the next receive
    sockaddr_in from{};
    Nanoseconds arrival = 0;
  };

  // Binds to 127.0.0.1:port, non-blocking. Throws std::runtime_error.
  explicit LoadSocket(int port);

  int descriptor() const { return socket.get(); }
  bool send(std::string_view text, const sockaddr_in& to) const;
  // The next datagram that is waiting, or nothing.
  std::optional<Datagram> receive();
  // Datagrams that the kernel threw away because this socket's buffer was full.
  std::uint32_t dropped() const { return droppedByKernel; }

 private:
  static constexpr std::size_t kMaxDatagram = 8192;

  FileDescriptor socket;
  std::array<char, kMaxDatagram> buffer{};
  std::uint32_t droppedByKernel = 0;
};
