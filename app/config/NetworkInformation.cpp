#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstring>
#include <net/if.h>
#include <netinet/in.h>
#include <optional>
#include <span>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "app/config/Guarded.h"
#include "app/config/Log.h"
#include "app/config/MyConfiguration.h"
#include "app/config/ProcessState.h"
#include "common/Handle.h"

namespace {

constexpr const char* kFindMyIP = "MyConfiguration::findMyIP";
constexpr const char* kReadNetwork = "MyConfiguration::readNetworkInformation";

// 4,000 bytes, as many as the kernel fills at most.
constexpr std::size_t kMaxInterfaces = 100;
using InterfaceList = std::array<ifreq, kMaxInterfaces>;
static_assert(sizeof(InterfaceList) == 4000);

FixedText<16> dotted(in_addr address) {
  FixedText<16> text;
  (void)inet_ntop(AF_INET, &address, text.data(), text.maxLength() + 1);
  return text;
}

in_addr addressOf(const sockaddr& general) {
  sockaddr_in address{};
  static_assert(sizeof address == sizeof general);
  std::memcpy(&address, &general, sizeof address);
  return address.sin_addr;
}

// How many of the list the kernel filled, or nothing (logged).
std::optional<std::size_t> listInterfaces(int socket, InterfaceList& list) {
  ifconf request{};
  request.ifc_len = static_cast<int>(sizeof list);
  request.ifc_req = list.data();
  if (ioctl(socket, SIOCGIFCONF, &request) < 0) {
    Log::warning(kReadNetwork, "problem calling SIOCGIFCONF %s\n", std::strerror(errno));
    return std::nullopt;
  }
  return std::min(static_cast<std::size_t>(request.ifc_len) / sizeof(ifreq), list.size());
}

// A hardware address that is not all zero: every device but the loopback device has one.
bool hasHardwareAddress(int socket, const ifreq& interface) {
  ifreq request{};
  std::memcpy(request.ifr_name, interface.ifr_name, sizeof request.ifr_name);
  if (ioctl(socket, SIOCGIFHWADDR, &request) < 0) {
    Log::warning(kReadNetwork, "for %s problem calling SIOCGIFHWADDR %s\n", interface.ifr_name,
                 std::strerror(errno));
    return false;
  }
  constexpr std::size_t kHardwareAddressBytes = 6;
  const auto bytes = std::span(request.ifr_hwaddr.sa_data).first<kHardwareAddressBytes>();
  return std::ranges::any_of(bytes, [](char byte) { return byte != 0; });
}

void takeAddress(const ifreq& interface) {
  if (interface.ifr_addr.sa_family != AF_INET) return;
  const FixedText<16> address = dotted(addressOf(interface.ifr_addr));
  if (address == "0.0.0.0" || address == "127.0.0.1" || !pcMyIPAsDetectedInternally.empty()) return;
  pcMyIPAsDetectedInternally = address;
}

// Connecting a UDP socket makes the kernel choose the local address, and sends nothing.
bool askForLocalAddress(FixedText<16>& out, const char* destination, int port) {
  const FileDescriptor probe(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!probe.isOpen()) {
    Log::error(kFindMyIP, "unable to open socket - %d - %s\n", errno, std::strerror(errno));
    return true;
  }
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = inet_addr(destination);
  if (connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    Log::error(kFindMyIP,
               "Unable to connect socket. Verify network is up, SipProxyIP parameter is correct and no other "
               "Quorvel is running on this machine. (err=%d)\n",
               errno);
    return true;
  }
  socklen_t length = sizeof address;
  if (getsockname(probe.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    Log::error(kFindMyIP, "unable to get sock name. (err=%d)\n", errno);
    return true;
  }
  out = dotted(address.sin_addr);
  shutdown(probe.get(), SHUT_RDWR);
  return false;
}

bool scanInterfaces() {
  const FileDescriptor probe(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!probe.isOpen()) {
    Log::warning(kReadNetwork, "problem opening socket %s\n", std::strerror(errno));
    return true;
  }
  InterfaceList list{};
  const std::optional<std::size_t> filled = listInterfaces(probe.get(), list);
  if (!filled) return true;

  int usable = 0;
  for (const ifreq& interface : std::span(list).first(*filled)) {
    if (interface.ifr_addr.sa_family != AF_INET)
      Log::warning(kReadNetwork, "sa_family is not AF_INET for %s\n", interface.ifr_name);
    if (!hasHardwareAddress(probe.get(), interface)) continue;
    ++usable;
    takeAddress(interface);
  }
  if (usable > 0 && !pcMyIPAsDetectedInternally.empty()) return false;
  Log::error(kReadNetwork, "no network interface with an IPv4 address found besides the loopback device\n");
  return true;
}

}  // namespace

int MyConfiguration::initializeNetwork() {
  return 0;
}

bool MyConfiguration::findMyIP(FixedText<16>& out, const char* destination, int port) {
  return guarded(kFindMyIP, true, [&] { return askForLocalAddress(out, destination, port); });
}

bool MyConfiguration::readNetworkInformation() {
  return guarded(kReadNetwork, true, scanInterfaces);
}
