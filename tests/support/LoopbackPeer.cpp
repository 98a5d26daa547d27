#include "tests/support/LoopbackPeer.h"

#include <arpa/inet.h>
#include <array>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>

LoopbackPeer::LoopbackPeer(int port) : socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  const sockaddr_in local = address(port);
  if (!socket.isOpen() || bind(socket.get(), reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
    throw std::runtime_error("cannot bind port " + std::to_string(port));
  }
}

int LoopbackPeer::port() const {
  sockaddr_in local{};
  socklen_t size = sizeof local;
  getsockname(socket.get(), reinterpret_cast<sockaddr*>(&local), &size);
  return ntohs(local.sin_port);
}

void LoopbackPeer::sendTo(int toPort, std::string_view datagram) const {
  const sockaddr_in to = address(toPort);
  sendto(socket.get(), datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr*>(&to),
         sizeof to);
}

std::optional<std::string> LoopbackPeer::receive(std::chrono::milliseconds timeout) {
  pollfd waiting{socket.get(), POLLIN, 0};
  if (poll(&waiting, 1, static_cast<int>(timeout.count())) <= 0) return std::nullopt;
  std::array<char, 65536> buffer;
  socklen_t size = sizeof lastSender;
  const ssize_t length = recvfrom(socket.get(), buffer.data(), buffer.size(), 0,
                                  reinterpret_cast<sockaddr*>(&lastSender), &size);
  if (length < 0) return std::nullopt;
  return std::string(buffer.data(), static_cast<std::size_t>(length));
}

int LoopbackPeer::freePortPair() {
  for (int attempt = 0; attempt < 100; ++attempt) {
    const LoopbackPeer probe;
    const int even = probe.port() & ~1;
    try {
      if (probe.port() == even) {
        const LoopbackPeer odd(even + 1);
      } else {
        const LoopbackPeer lower(even);
      }
      return even;
    } catch (const std::runtime_error&) {
      continue;
    }
  }
  throw std::runtime_error("no free pair of ports");
}

sockaddr_in LoopbackPeer::address(int port, const char* ip) {
  sockaddr_in result{};
  result.sin_family = AF_INET;
  result.sin_port = htons(static_cast<in_port_t>(port));
  inet_pton(AF_INET, ip, &result.sin_addr);
  return result;
}
