// Sending for media threads: never waits; a datagram that cannot be sent is lost.
#pragma once

#include <cerrno>
#include <cstddef>
#include <netinet/in.h>
#include <sys/socket.h>

inline void sendDatagram(int descriptor, const sockaddr_in& to, const char* msg, int len) {
  // A null address says "send nothing here" (a leg on hold); the kernel would take it for this host.
  if (to.sin_addr.s_addr == INADDR_ANY) return;
  while (sendto(descriptor, msg, static_cast<std::size_t>(len), MSG_DONTWAIT | MSG_NOSIGNAL,
                reinterpret_cast<const sockaddr*>(&to), sizeof to) < 0 &&
         errno == EINTR) {
  }
}
