#include "tests/codec/ReferenceCodecs.h"

#include <cstring>
#include <stdexcept>
extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
}
#include <spandsp.h>

namespace {

void require(bool done, const char* what) {
  if (!done) throw std::runtime_error(what);
}

AVCodecContext* openContext(const AVCodec* codec) {
  AVCodecContext* context = avcodec_alloc_context3(codec);
  require(context != nullptr, "libavcodec has no G.722");
  context->sample_rate = 16000;
  context->sample_fmt = AV_SAMPLE_FMT_S16;
  context->bits_per_coded_sample = 8;
  av_channel_layout_default(&context->ch_layout, 1);
  require(avcodec_open2(context, codec, nullptr) == 0, "libavcodec does not open G.722");
  return context;
}

}  // namespace

void FreeAv::operator()(AVCodecContext* context) const {
  avcodec_free_context(&context);
}
void FreeAv::operator()(AVFrame* frame) const {
  av_frame_free(&frame);
}
void FreeAv::operator()(AVPacket* packet) const {
  av_packet_free(&packet);
}
void FreeSpandsp::operator()(g722_encode_state_s* state) const {
  g722_encode_free(state);
}
void FreeSpandsp::operator()(g722_decode_state_s* state) const {
  g722_decode_free(state);
}

AvcodecEncoder::AvcodecEncoder()
    : context(openContext(avcodec_find_encoder(AV_CODEC_ID_ADPCM_G722))),
      frame(av_frame_alloc()),
      packet(av_packet_alloc()) {}

void AvcodecEncoder::encode(std::span<const std::int16_t> in, Codes& out) {
  const auto most = static_cast<std::size_t>(context->frame_size);
  for (std::size_t done = 0; done < in.size();) {
    const std::span block = in.subspan(done, std::min(most, in.size() - done));
    frame->nb_samples = static_cast<int>(block.size());
    frame->format = AV_SAMPLE_FMT_S16;
    av_channel_layout_default(&frame->ch_layout, 1);
    require(av_frame_get_buffer(frame.get(), 0) == 0, "no frame");
    std::memcpy(frame->data[0], block.data(), block.size_bytes());
    require(avcodec_send_frame(context.get(), frame.get()) == 0, "frame refused");
    while (avcodec_receive_packet(context.get(), packet.get()) == 0) {
      out.insert(out.end(), packet->data, packet->data + packet->size);
      av_packet_unref(packet.get());
    }
    av_frame_unref(frame.get());
    done += block.size();
  }
}

AvcodecDecoder::AvcodecDecoder()
    : context(openContext(avcodec_find_decoder(AV_CODEC_ID_ADPCM_G722))),
      frame(av_frame_alloc()),
      packet(av_packet_alloc()) {}

void AvcodecDecoder::decode(std::span<const std::uint8_t> in, Samples& out) {
  require(av_new_packet(packet.get(), static_cast<int>(in.size())) == 0, "no packet");
  std::memcpy(packet->data, in.data(), in.size());
  require(avcodec_send_packet(context.get(), packet.get()) == 0, "packet refused");
  av_packet_unref(packet.get());
  while (avcodec_receive_frame(context.get(), frame.get()) == 0) {
    const auto* decoded = reinterpret_cast<const std::int16_t*>(frame->data[0]);
    out.insert(out.end(), decoded, decoded + frame->nb_samples);
    av_frame_unref(frame.get());
  }
}

SpandspEncoder::SpandspEncoder(int bitRate) : state(g722_encode_init(nullptr, bitRate, 0)) {}

void SpandspEncoder::encode(std::span<const std::int16_t> in, Codes& out) {
  const std::size_t before = out.size();
  out.resize(before + in.size() / 2);
  const int written = g722_encode(state.get(), out.data() + before, in.data(), static_cast<int>(in.size()));
  require(written == static_cast<int>(in.size() / 2), "spandsp encoded another length");
}

SpandspDecoder::SpandspDecoder(int bitRate) : state(g722_decode_init(nullptr, bitRate, 0)) {}

void SpandspDecoder::decode(std::span<const std::uint8_t> in, Samples& out) {
  const std::size_t before = out.size();
  out.resize(before + in.size() * 2);
  const int written = g722_decode(state.get(), out.data() + before, in.data(), static_cast<int>(in.size()));
  require(written == static_cast<int>(in.size() * 2), "spandsp decoded another length");
}
