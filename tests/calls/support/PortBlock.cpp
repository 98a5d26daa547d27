#include "tests/calls/support/PortBlock.h"

#include <fcntl.h>
#include <stdexcept>
#include <string>
#include <sys/file.h>

#include "tests/support/LoopbackPeer.h"

namespace {

// Below the range from which the kernel takes ports of its own accord.
constexpr int kFirstPort = 24000;
constexpr int kLastPort = 26999;
constexpr int kPortsInABlock = 100;

bool everyPortIsFree(int first) {
  try {
    for (int port = first; port < first + kPortsInABlock; ++port) const LoopbackPeer probe(port);
    return true;
  } catch (const std::runtime_error&) {
    return false;
  }
}

}  // namespace

PortBlock::PortBlock() {
  for (int base = kFirstPort; base + kPortsInABlock - 1 <= kLastPort; base += kPortsInABlock) {
    const std::string path = "/tmp/quorvel-ports-" + std::to_string(base) + ".lock";
    FileDescriptor candidate(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666));
    if (!candidate.isOpen() || flock(candidate.get(), LOCK_EX | LOCK_NB) != 0) continue;
    if (!everyPortIsFree(base)) continue;
    first = base;
    lock = std::move(candidate);
    return;
  }
  throw std::runtime_error("every block of test ports is in use");
}
