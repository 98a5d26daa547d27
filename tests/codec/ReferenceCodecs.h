// Independent implementations of G.722 as partners of tests and benchmarks: libavcodec (64 kbit/s) and
// spandsp (all three bit rates, one code word per byte as Quorvel packs them). One object is one stream in
// one direction.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

using Samples = std::vector<std::int16_t>;
using Codes = std::vector<std::uint8_t>;

struct AVCodecContext;
struct AVFrame;
struct AVPacket;
struct g722_encode_state_s;
struct g722_decode_state_s;

struct FreeAv {
  void operator()(AVCodecContext* context) const;
  void operator()(AVFrame* frame) const;
  void operator()(AVPacket* packet) const;
};
struct FreeSpandsp {
  void operator()(g722_encode_state_s* state) const;
  void operator()(g722_decode_state_s* state) const;
};

// Blocks of libavcodec are cut by the library: any even number of samples up to a second.
class AvcodecEncoder {
 public:
  AvcodecEncoder();
  void encode(std::span<const std::int16_t> in, Codes& out);  // appends

 private:
  std::unique_ptr<AVCodecContext, FreeAv> context;
  std::unique_ptr<AVFrame, FreeAv> frame;
  std::unique_ptr<AVPacket, FreeAv> packet;
};

class AvcodecDecoder {
 public:
  AvcodecDecoder();
  void decode(std::span<const std::uint8_t> in, Samples& out);  // appends

 private:
  std::unique_ptr<AVCodecContext, FreeAv> context;
  std::unique_ptr<AVFrame, FreeAv> frame;
  std::unique_ptr<AVPacket, FreeAv> packet;
};

class SpandspEncoder {
 public:
  explicit SpandspEncoder(int bitRate);
  void encode(std::span<const std::int16_t> in, Codes& out);  // appends

 private:
  std::unique_ptr<g722_encode_state_s, FreeSpandsp> state;
};

class SpandspDecoder {
 public:
  explicit SpandspDecoder(int bitRate);
  void decode(std::span<const std::uint8_t> in, Samples& out);  // appends

 private:
  std::unique_ptr<g722_decode_state_s, FreeSpandsp> state;
};
