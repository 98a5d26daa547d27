// The least that a relay of this shape can do: a thread a call that waits with select on the call's two
// sockets, converts each packet with one table or the G.722 codec, and sends it on. No order, no checks, no
// engine, no statistics. What a real relay takes above this is the price of what it does besides.
//
// Prints the calls' ports as rtp_load reads them and runs until standard input closes.
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <sys/select.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "bench/LoadSocket.h"
#include "bench/MediaSignal.h"
#include "rtp/G711.h"
#include "rtp/MyGWB.h"

namespace {

constexpr std::size_t kRtpHeader = 12;
constexpr std::size_t kMaxPacket = 2000;

struct Arguments {
  int calls = 127;
  int port = 31000;   // the relay's first, four a call
  int media = 29000;  // the phones' first, four a call
  MediaCodec caller = MediaCodec::ePcmu;
  MediaCodec callee = MediaCodec::ePcma;
};

using Samples = std::array<std::int16_t, 2 * kMaxPacket>;
using CodeTable = std::array<unsigned char, 256>;

// One direction of a call, from one codec to another.
class Converter {
 public:
  Converter(MediaCodec fromCodec, MediaCodec toCodec) : from(fromCodec), to(toCodec) {
    myGWB.decodeInit(&decoder, 64000);
    myGWB.encodeInit(&encoder, 64000);
    for (std::size_t code = 0; code < table.size(); ++code)
      table[code] = encoded(decoded(static_cast<unsigned char>(code)));
  }

  void convert(char* payload, std::size_t length) {
    if (from == to) return;
    if (from == MediaCodec::eG722) return fromG722(payload, length);
    if (to == MediaCodec::eG722) return toG722(payload, length);
    for (std::size_t at = 0; at < length; ++at)
      payload[at] = static_cast<char>(table[static_cast<unsigned char>(payload[at])]);
  }

  int payloadType() const { return payloadTypeOf(to); }

 private:
  std::int16_t decoded(unsigned char code) const {
    return from == MediaCodec::ePcmu ? ulaw2linear(code) : alaw2linear(code);
  }
  unsigned char encoded(std::int16_t sample) const {
    return to == MediaCodec::ePcmu ? linear2ulaw(sample) : linear2alaw(sample);
  }

  void fromG722(char* payload, std::size_t length) {
    myGWB.decode(&decoder, samples.data(), payload, static_cast<int>(length));
    for (std::size_t at = 0; at < length; ++at)
      payload[at] =
          static_cast<char>(encoded(static_cast<std::int16_t>((samples[2 * at] + samples[2 * at + 1]) >> 1)));
  }

  void toG722(char* payload, std::size_t length) {
    for (std::size_t at = 0; at < length; ++at) {
      const std::int16_t sample = decoded(static_cast<unsigned char>(payload[at]));
      samples[2 * at] = static_cast<std::int16_t>((last + sample) >> 1);
      samples[2 * at + 1] = sample;
      last = sample;
    }
    myGWB.encode(&encoder, payload, samples.data(), static_cast<int>(2 * length));
  }

  MediaCodec from;
  MediaCodec to;
  CodeTable table{};
  sGWBDecode_t decoder{};
  sGWBEncode_t encoder{};
  Samples samples{};
  std::int16_t last = 0;
};

struct Leg {
  FileDescriptor socket;
  sockaddr_in peer{};
};

struct Call {
  Leg legs[2];  // towards the caller, towards the callee
  std::unique_ptr<Converter> converters[2];
};

FileDescriptor boundSocket(int port) {
  FileDescriptor descriptor(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const sockaddr_in address = loopback(port);
  if (bind(descriptor.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    throw std::runtime_error("port " + std::to_string(port) + " is taken");
  return descriptor;
}

Call openCall(const Arguments& arguments, int number) {
  Call call;
  for (int side = 0; side < 2; ++side) {
    call.legs[side].socket = boundSocket(arguments.port + 4 * number + 2 * side);
    call.legs[side].peer = loopback(arguments.media + 4 * number + 2 * side);
  }
  call.converters[0] = std::make_unique<Converter>(arguments.caller, arguments.callee);
  call.converters[1] = std::make_unique<Converter>(arguments.callee, arguments.caller);
  return call;
}

void forward(Call& call, int side, std::array<char, kMaxPacket>& packet) {
  const ssize_t length = recv(call.legs[side].socket.get(), packet.data(), packet.size(), MSG_DONTWAIT);
  if (length < static_cast<ssize_t>(kRtpHeader)) return;
  call.converters[side]->convert(packet.data() + kRtpHeader, static_cast<std::size_t>(length) - kRtpHeader);
  packet[1] = static_cast<char>((packet[1] & 0x80) | call.converters[side]->payloadType());
  const Leg& out = call.legs[1 - side];
  sendto(out.socket.get(), packet.data(), static_cast<std::size_t>(length), 0,
         reinterpret_cast<const sockaddr*>(&out.peer), sizeof out.peer);
}

[[noreturn]] void relay(Call& call) {
  std::array<char, kMaxPacket> packet;
  const int sockets[2] = {call.legs[0].socket.get(), call.legs[1].socket.get()};
  for (;;) {
    fd_set ready;
    FD_ZERO(&ready);
    FD_SET(sockets[0], &ready);
    FD_SET(sockets[1], &ready);
    timeval timeout{.tv_sec = 0, .tv_usec = 20'000};
    if (select(std::max(sockets[0], sockets[1]) + 1, &ready, nullptr, nullptr, &timeout) <= 0) continue;
    for (int side = 0; side < 2; ++side)
      if (FD_ISSET(sockets[side], &ready)) forward(call, side, packet);
  }
}

MediaCodec codec(const std::string& name) {
  const auto found = mediaCodecNamed(name);
  if (!found) throw std::invalid_argument("codec " + name);
  return *found;
}

Arguments parse(int count, char** values) {
  Arguments arguments;
  for (int index = 1; index + 1 < count; index += 2) {
    const std::string name = values[index];
    const std::string value = values[index + 1];
    if (name == "--calls")
      arguments.calls = std::stoi(value);
    else if (name == "--port")
      arguments.port = std::stoi(value);
    else if (name == "--media")
      arguments.media = std::stoi(value);
    else if (name == "--caller")
      arguments.caller = codec(value);
    else if (name == "--callee")
      arguments.callee = codec(value);
    else
      throw std::invalid_argument(name);
  }
  return arguments;
}

}  // namespace

int main(int count, char** values) {
  try {
    const Arguments arguments = parse(count, values);
    std::vector<Call> calls;
    for (int number = 0; number < arguments.calls; ++number) calls.push_back(openCall(arguments, number));
    for (Call& call : calls) std::thread(relay, std::ref(call)).detach();
    for (int number = 0; number < arguments.calls; ++number) {
      const int relayPort = arguments.port + 4 * number;
      const int mediaPort = arguments.media + 4 * number;
      std::printf("call %d %d %d %d %d\n", number, mediaPort, relayPort, mediaPort + 2, relayPort + 2);
    }
    std::printf("ready %d\n", arguments.calls);
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
    _exit(0);  // the threads still use what main owns
  } catch (const std::exception& failure) {
    std::fprintf(
        stderr,
        "bare_relay: %s\n"
        "bare_relay [--calls N] [--port FIRST] [--media FIRST_OF_PHONES] [--caller CODEC] [--callee CODEC]\n",
        failure.what());
    return 2;
  }
}
