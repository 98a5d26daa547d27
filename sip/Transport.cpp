// The SIP socket: opening, sending, sending again.
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>

#include "app/config/Log.h"
#include "sip/MySip.h"

namespace {

// While the main loop is busy (a maintenance tick takes milliseconds), messages wait in the kernel. The usual
// default of 212,992 bytes holds some 150 of them; 4 MiB holds a second of 1,800 calls. Larger costs only
// when it fills.
constexpr int kSocketBufferBytes = 4 * 1024 * 1024;

void enlargeBuffer(int socket, int forceOption, int option) {
  // The forced form goes beyond the system's limit and needs the privilege; the other is cut to the limit.
  if (setsockopt(socket, SOL_SOCKET, forceOption, &kSocketBufferBytes, sizeof kSocketBufferBytes) != 0) {
    setsockopt(socket, SOL_SOCKET, option, &kSocketBufferBytes, sizeof kSocketBufferBytes);
  }
}

}  // namespace

sockaddr_in MySip::addressOf(const char* ip, int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<in_port_t>(port));
  address.sin_addr.s_addr = inet_addr(ip);
  return address;
}

FixedText<16> MySip::ipOf(const sockaddr_in& address) {
  FixedText<16> text;
  inet_ntop(AF_INET, &address.sin_addr, text.data(), 16);
  return text;
}

int MySip::prepareConnection() {
  constexpr const char* kFunction = "MySip::prepareConnection";
  iSocket.reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!iSocket.isOpen()) {
    Log::error(kFunction, "unable to open socket - %d - %s\n", errno, std::strerror(errno));
    return 2;
  }
  const int flags = fcntl(iSocket.get(), F_GETFL, 0);
  if (fcntl(iSocket.get(), F_SETFL, flags < 0 ? O_NONBLOCK : flags | O_NONBLOCK) < 0) {
    Log::error(kFunction, "unable to set NONBLOCK - %d - %s\n", errno, std::strerror(errno));
    return 2;
  }
  sProxyAddress = addressOf(pcSipProxyIP.c_str(), iSipProxyPort);
  sLocalAddress = addressOf(pcSipUAIPForBinding.c_str(), iSipUAPort);
  const int on = 1;
  if (setsockopt(iSocket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) {
    Log::error(kFunction, "unable to reuse socket\n");
    return 2;
  }
  enlargeBuffer(iSocket.get(), SO_RCVBUFFORCE, SO_RCVBUF);
  enlargeBuffer(iSocket.get(), SO_SNDBUFFORCE, SO_SNDBUF);
  if (bind(iSocket.get(), reinterpret_cast<const sockaddr*>(&sLocalAddress), sizeof sLocalAddress) != 0) {
    Log::error(
        kFunction,
        "unable to bind socket. Verify network is up, SipUAIP parameter is correct and no other program uses "
        "port %d. Try turning OFF firewall and antivirus.(err=%d)\n",
        iSipUAPort, errno);
    return 2;
  }
  return 0;
}

ssize_t MySip::sendSipMsg(MessageRing* ring, int* ringIndex, std::string_view callId, int cseq,
                          std::string_view text, const sockaddr_in& to) {
  constexpr const char* kFunction = "MySip::sendSipMsg";
  if (iSipDebug != 0) {
    Log::info(kFunction, "*** Sending to %s:%d:\n%.*s\n", ipOf(to).c_str(), ntohs(to.sin_port),
              static_cast<int>(text.size()), text.data());
  }
  ssize_t sent;
  do {
    sent =
        sendto(iSocket.get(), text.data(), text.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
  } while (sent < 0 && errno == EINTR);
  if (sent < 0) {
    Log::warning(kFunction, "unable to send to %s:%d - %d - %s\n", ipOf(to).c_str(), ntohs(to.sin_port),
                 errno, std::strerror(errno));
  }
  if (sent < 0 || ring == nullptr) return sent;

  sLastMsgData& record = (*ring)[static_cast<std::size_t>(*ringIndex)];
  if (!record.pcMsg.assign(text)) {
    Log::warning(kFunction, "message of %d characters is too long to be stored\n",
                 static_cast<int>(text.size()));
    return sent;
  }
  record.pcCallID.assignCut(callId);
  record.iCSeq = cseq;
  record.sAddress = to;
  *ringIndex = *ringIndex + 1 < kStoredMessages ? *ringIndex + 1 : 0;
  return sent;
}

void MySip::resendLastSipMsg(const MessageRing& ring, int ringIndex, std::string_view callId, int cseq) {
  for (int back = 1; back <= kStoredMessages; ++back) {
    const sLastMsgData& record =
        ring[static_cast<std::size_t>((ringIndex + kStoredMessages - back) % kStoredMessages)];
    if (record.iCSeq != cseq || record.pcCallID != callId) continue;
    sendSipMsg(nullptr, nullptr, {}, cseq, record.pcMsg, record.sAddress);
    return;
  }
  Log::warning("MySip::resendLastSipMsg", "Unable to locate message with CSeq=%d\n", cseq);
}
