// The fixed header of RTP (RFC 3550 section 5.1), 12 bytes, all numbers big-endian:
//
//   0 version 2 bits, padding, extension, CSRC count 4 bits
//   1 marker, payload type 7 bits
//   2 sequence number     4 timestamp     8 SSRC
#pragma once

#include <cstdint>

inline constexpr int kRtpHeaderBytes = 12;

class RtpHeader {
 public:
  // `packet` has at least kRtpHeaderBytes.
  explicit RtpHeader(const char* packet) : pcBytes(reinterpret_cast<const unsigned char*>(packet)) {}

  bool isVersion2() const { return (pcBytes[0] & 0xC0) == 0x80; }
  bool hasPadding() const { return (pcBytes[0] & 0x20) != 0; }
  bool hasExtension() const { return (pcBytes[0] & 0x10) != 0; }
  int csrcCount() const { return pcBytes[0] & 0x0F; }
  bool hasMarker() const { return (pcBytes[1] & 0x80) != 0; }
  int payloadType() const { return pcBytes[1] & 0x7F; }
  int sequence() const { return pcBytes[2] << 8 | pcBytes[3]; }
  std::uint32_t timestamp() const { return number(4); }
  std::uint32_t ssrc() const { return number(8); }
  // Where the payload begins, behind contributing sources and an extension; `length`, the packet's, when
  // these leave no room for one.
  int payloadStart(int length) const {
    int start = kRtpHeaderBytes + 4 * csrcCount();
    if (hasExtension() && start + 4 <= length)
      start += 4 + 4 * (pcBytes[start + 2] << 8 | pcBytes[start + 3]);
    return start < length ? start : length;
  }

 private:
  std::uint32_t number(int offset) const {
    const unsigned char* bytes = pcBytes + offset;
    return static_cast<std::uint32_t>(bytes[0]) << 24 | static_cast<std::uint32_t>(bytes[1]) << 16 |
           static_cast<std::uint32_t>(bytes[2]) << 8 | static_cast<std::uint32_t>(bytes[3]);
  }
  const unsigned char* pcBytes;
};
