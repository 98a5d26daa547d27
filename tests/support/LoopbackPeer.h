// A UDP socket on 127.0.0.1 that plays a phone, a PBX or an RTP source in tests.
#pragma once

#include <chrono>
#include <netinet/in.h>
#include <optional>
#include <string>
#include <string_view>

#include "common/Handle.h"

class LoopbackPeer {
 public:
  // Binds to the port, or to one that the kernel chooses. Throws std::runtime_error.
  explicit LoopbackPeer(int port = 0);

  int port() const;
  int descriptor() const { return socket.get(); }

  void sendTo(int toPort, std::string_view datagram) const;
  // The next datagram, or nothing within the time. Remembers who sent it.
  std::optional<std::string> receive(std::chrono::milliseconds timeout = std::chrono::milliseconds(1000));
  // Nothing waiting?
  bool quiet(std::chrono::milliseconds time = std::chrono::milliseconds(0)) {
    return !receive(time).has_value();
  }
  int lastSenderPort() const { return ntohs(lastSender.sin_port); }
  const sockaddr_in& lastSenderAddress() const { return lastSender; }

  // A UDP port (even, with its odd successor) that is free right now.
  static int freePortPair();
  static sockaddr_in address(int port, const char* ip = "127.0.0.1");

 private:
  FileDescriptor socket;
  sockaddr_in lastSender{};
};
