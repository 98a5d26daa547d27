// The ring of processed samples of one side, between the engine's frames and the encoder:
//
//   psOutRing  . . . o o o o o o o . . .        o = waiting to be encoded
//                    ^ iOutRingRead  ^ iOutRingWrite
//
// A view on the fields of the pair record. More samples than the ring holds may be counted while a packet is
// taken in; the oldest ones are overwritten then, and keepNewest makes count and content agree again.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>

#include "rtp/sRtpSessionPair.h"

class OutRing {
 public:
  OutRing(sPairSamples& samples, int side)
      : psRing(samples.psOutRing[side]),
        iWrite(samples.iOutRingWrite[side]),
        iAvailable(samples.iOutRingAvailable[side]),
        iRead(samples.iOutRingRead[side]) {}

  int available() const { return iAvailable; }

  // count: at most kOutRingSamples.
  void write(const std::int16_t* samples, int count) {
    const int first = std::min(count, kOutRingSamples - iWrite);
    copy(psRing.data() + iWrite, samples, first);
    copy(psRing.data(), samples + first, count - first);
    iWrite = wrapped(iWrite + count);
    iAvailable += count;
  }

  // count: at most kOutRingSamples and at most what was written in the last writes.
  void keepNewest(int count) {
    iRead = wrapped(iWrite + kOutRingSamples - count);
    iAvailable = count;
  }

  // count: at most available().
  void read(std::int16_t* samples, int count) {
    const int first = std::min(count, kOutRingSamples - iRead);
    copy(samples, psRing.data() + iRead, first);
    copy(samples + first, psRing.data(), count - first);
    skip(count);
  }

  // Encodes every step-th sample, count of them, through a table. step: 1 or 2; count * step: at most
  // available().
  void encode(const std::array<std::uint8_t, 8192>& codes, int step, char* out, int count) {
    while (count > 0) {
      const int run = std::min(count, (kOutRingSamples - iRead + step - 1) / step);
      if (step == 1) {
        encodeRun<1>(codes.data(), psRing.data() + iRead, out, run);
      } else {
        encodeRun<2>(codes.data(), psRing.data() + iRead, out, run);
      }
      skip(run * step);
      out += run;
      count -= run;
    }
  }

  void skip(int count) {
    iRead = wrapped(iRead + count);
    iAvailable -= count;
  }

 private:
  // The three areas do not overlap; saying so keeps the addresses in registers.
  template <int step>
  static void encodeRun(const std::uint8_t* __restrict codes, const std::int16_t* __restrict samples,
                        char* __restrict out, int count) {
    for (int i = 0; i < count; ++i) {
      out[i] = static_cast<char>(codes[static_cast<std::uint16_t>(samples[i * step]) >> 3]);
    }
  }
  static void copy(std::int16_t* to, const std::int16_t* from, int count) {
    std::memcpy(to, from, static_cast<std::size_t>(count) * sizeof *to);
  }
  // position: below twice the ring.
  static int wrapped(int position) {
    return position >= kOutRingSamples ? position - kOutRingSamples : position;
  }

  std::array<std::int16_t, kOutRingSamples>& psRing;
  int& iWrite;
  int& iAvailable;
  int& iRead;
};
