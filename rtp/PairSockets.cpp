#include <algorithm>
#include <cerrno>
#include <sys/socket.h>

#include "app/config/Log.h"
#include "rtp/MyRtp.h"

namespace {

constexpr const char* kFunction = "MyRtp::openSessionPair";

bool bindSocket(int descriptor, const sockaddr_in& address) {
  return bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

}  // namespace

// select can wait for descriptors below FD_SETSIZE only.
bool MyRtp::createSocket(int& descriptor, int pair) {
  const int created = descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (created >= 0 && created < FD_SETSIZE) return true;
  // First, since where descriptors are short, the log needs one, too.
  for (int side = 0; side < 2; ++side) closeSockets(side, pair);
  if (created < 0) {
    Log::error(kFunction, "unable to create socket");
  } else {
    Log::error(kFunction, "socket descriptor %d is too large for select, which takes descriptors below %d\n",
               created, FD_SETSIZE);
  }
  return false;
}

bool MyRtp::openSockets(int pair) {
  sRtpSessionPair& record = psPairs[pair];
  for (int side = 0; side < 2; ++side) {
    if (!createSocket(record.iRtpSocket[side], pair) || !createSocket(record.iRtcpSocket[side], pair))
      return false;
  }
  for (int side = 0; side < 2; ++side) {
    if (!bindSocket(record.iRtpSocket[side], record.sLocalRtpAddr[side])) {
      Log::error(kFunction,
                 "unable to bind socket (%d) (%d) 1. Verify no other program uses port %d. Try turning OFF "
                 "firewall and antivirus. (err=%d) \n",
                 pair, side, record.iLocalRtpPort[side], errno);
      return false;
    }
    if (!bindSocket(record.iRtcpSocket[side], record.sLocalRtcpAddr[side])) {
      Log::error(kFunction,
                 "unable to bind socket (%d) (%d) 2. Verify no other program uses port %d. Try turning OFF "
                 "firewall and antivirus. (err=%d)\n",
                 pair, side, record.iLocalRtcpPort[side], errno);
      return false;
    }
  }
  return true;
}

void MyRtp::recalculateFDSet(int pair) {
  sRtpSessionPair& record = psPairs[pair];
  FD_ZERO(&record.sReadSet);
  record.iMaxFd = -1;
  for (int side = 0; side < 2; ++side) {
    for (const int descriptor : {record.iRtpSocket[side], record.iRtcpSocket[side]}) {
      FD_SET(descriptor, &record.sReadSet);
      record.iMaxFd = std::max(record.iMaxFd, descriptor);
    }
  }
}
