// The two phones' media of many calls in one thread: every call sends a 20 ms packet from either phone, all
// packets evenly spaced over the 20 ms, and receives what comes back on the other phone's port.
//
// Delay is counted from just before the packet is handed to the kernel to the kernel's stamp on its arrival,
// so the receiver need not be prompt: it looks at its sockets between packets and never waits on them.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "bench/LoadSocket.h"
#include "bench/MediaSignal.h"

// Ports of a call, as a call set-up reports them.
struct MediaCall {
  int callerPort = 0;
  int towardsCallerPort = 0;  // where the caller sends to
  int calleePort = 0;
  int towardsCalleePort = 0;  // where the callee sends to
};

struct StreamReport {
  std::int64_t sent = 0;
  std::int64_t received = 0;
  std::int64_t lost = 0;
  std::int64_t repeated = 0;
  std::int64_t tooLate = 0;  // counted as lost before they came
  std::int64_t foreign = 0;  // wrong payload type or length
  std::vector<Nanoseconds> delays;
  std::vector<Nanoseconds> lateness;         // of the sender
  std::optional<double> soundShiftToCallee;  // milliseconds, of the first call
  std::optional<double> soundShiftToCaller;
  std::uint32_t droppedByOwnSockets = 0;
};

class RtpStreams {
 public:
  // Binds all phones' ports. Throws std::runtime_error.
  RtpStreams(const std::vector<MediaCall>& calls, MediaCodec caller, MediaCodec callee);

  // Sends for so many packets of every phone. Only what is sent while `measured` is counted.
  void run(int packets, bool measured);
  // Waits for the last packets and counts the lost ones.
  const StreamReport& finish();

 private:
  // Packets whose send time is remembered; later than that is lost.
  static constexpr std::uint32_t kRemembered = 64;

  // What one phone sends, through the relay, to the other.
  struct Stream {
    int from = 0;  // phone index
    int to = 0;
    sockaddr_in destination{};
    MediaCodec sendCodec = MediaCodec::ePcmu;
    std::uint32_t ssrc = 0;
    std::uint32_t next = 0;                      // number of the next packet
    std::optional<std::uint32_t> sequenceShift;  // of the relay's sequence numbers against ours
    std::uint32_t newest = 0;                    // highest packet number received
    Nanoseconds sentAt[kRemembered] = {};
    bool measured[kRemembered] = {};
    bool arrived[kRemembered] = {};
    std::vector<Payload> recorded;  // of the first call only
    std::uint32_t recordedFrom = 0;
  };

  void sendPacket(Stream& stream, bool measured, Nanoseconds due);
  void receiveAll();
  void receiveOn(std::size_t phone);
  void take(Stream& stream, const LoadSocket::Datagram& datagram);
  std::uint32_t numberOf(Stream& stream, std::uint32_t sequence, Nanoseconds arrival);
  void record(Stream& stream, std::uint32_t number, std::string_view payload);
  void forget(Stream& stream, std::uint32_t number);
  MediaCodec receiveCodecOf(const Stream& stream) const { return streams[streamFrom(stream.to)].sendCodec; }
  static std::size_t streamFrom(int phone) { return static_cast<std::size_t>(phone); }
  std::optional<double> shiftOf(const Stream& stream) const;

  MediaSignal signal;
  std::vector<Payload> payloads[3];                 // by codec
  std::vector<std::unique_ptr<LoadSocket>> phones;  // caller of call 0, callee of call 0, caller of call 1...
  std::vector<Stream> streams;                      // stream i is sent by phone i
  FileDescriptor poller;
  StreamReport results;
  Nanoseconds nextDue = 0;
};
