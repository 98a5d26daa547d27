#include "bench/LoadSocket.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <sched.h>
#include <stdexcept>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>

namespace {

// A stall of 100 ms of the generator at 2,000 calls a second leaves 800 messages of a kilobyte and the
// kernel's bookkeeping waiting; the kernel may grant less than asked for.
constexpr int kReceiveBufferBytes = 4 * 1024 * 1024;
constexpr int kRealTimePriority = 10;

void warn(const char* what) {
  std::fprintf(stderr, "load generator: %s: %s\n", what, std::strerror(errno));
}

void setOption(int descriptor, int option, int value) {
  if (setsockopt(descriptor, SOL_SOCKET, option, &value, sizeof value) != 0) warn("socket option");
}

}  // namespace

Nanoseconds wallClock() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec * kSecond + now.tv_nsec;
}

void prepareGenerator(int core, bool realTime) {
  if (core >= 0) {
    cpu_set_t cores;
    CPU_ZERO(&cores);
    CPU_SET(static_cast<unsigned>(core), &cores);
    if (sched_setaffinity(0, sizeof cores, &cores) != 0) warn("core");
  }
  if (prctl(PR_SET_TIMERSLACK, 1) != 0) warn("timer slack");
  const sched_param priority{.sched_priority = kRealTimePriority};
  if (realTime && sched_setscheduler(0, SCHED_FIFO, &priority) != 0) warn("real-time priority");
}

sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

LoadSocket::LoadSocket(int port) : socket(::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
  if (!socket.isOpen()) throw std::runtime_error("no socket");
  setOption(descriptor(), SO_RCVBUF, kReceiveBufferBytes);
  setOption(descriptor(), SO_TIMESTAMPNS, 1);
  setOption(descriptor(), SO_RXQ_OVFL, 1);
  const sockaddr_in address = loopback(port);
  if (bind(descriptor(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    throw std::runtime_error("port " + std::to_string(port) + " is taken");
}

bool LoadSocket::send(std::string_view text, const sockaddr_in& to) const {
  return sendto(descriptor(), text.data(), text.size(), 0, reinterpret_cast<const sockaddr*>(&to),
                sizeof to) == static_cast<ssize_t>(text.size());
}

std::optional<LoadSocket::Datagram> LoadSocket::receive() {
  Datagram datagram;
  alignas(cmsghdr) std::array<char, 128> control{};
  iovec room{buffer.data(), buffer.size()};
  msghdr header{};
  header.msg_name = &datagram.from;
  header.msg_namelen = sizeof datagram.from;
  header.msg_iov = &room;
  header.msg_iovlen = 1;
  header.msg_control = control.data();
  header.msg_controllen = control.size();
  const ssize_t length = recvmsg(descriptor(), &header, 0);
  if (length < 0) return std::nullopt;
  datagram.text = {buffer.data(), static_cast<std::size_t>(length)};
  for (cmsghdr* item = CMSG_FIRSTHDR(&header); item != nullptr; item = CMSG_NXTHDR(&header, item)) {
    if (item->cmsg_level != SOL_SOCKET) continue;
    if (item->cmsg_type == SO_TIMESTAMPNS) {
      timespec stamp{};
      std::memcpy(&stamp, CMSG_DATA(item), sizeof stamp);
      datagram.arrival = stamp.tv_sec * kSecond + stamp.tv_nsec;
    } else if (item->cmsg_type == SO_RXQ_OVFL) {
      std::memcpy(&droppedByKernel, CMSG_DATA(item), sizeof droppedByKernel);
    }
  }
  return datagram;
}
