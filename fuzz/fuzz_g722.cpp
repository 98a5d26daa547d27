// G.722 code words and samples of any value, cut at any place: the first byte chooses bit rate and block
// length, the rest is decoded and what comes out encoded again. Byte for byte the result must not depend on
// the cut.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "rtp/MyGWB.h"

namespace {

std::vector<char> throughBoth(const char* in, std::size_t length, int bitRate, std::size_t block) {
  sGWBDecode_t decoder;
  sGWBEncode_t encoder;
  myGWB.decodeInit(&decoder, bitRate);
  myGWB.encodeInit(&encoder, bitRate);
  std::vector<short> samples(2 * length);
  std::vector<char> out(length);
  for (std::size_t done = 0; done < length; done += block) {
    const std::size_t bytes = std::min(block, length - done);
    const int decoded = myGWB.decode(&decoder, &samples[2 * done], in + done, static_cast<int>(bytes));
    if (myGWB.encode(&encoder, &out[done], &samples[2 * done], decoded) != static_cast<int>(bytes))
      std::abort();
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  constexpr int kBitRates[] = {64000, 56000, 48000, 0};
  const int bitRate = kBitRates[data[0] & 3];
  const std::size_t block = 1 + (data[0] >> 2);
  const char* const codes = reinterpret_cast<const char*>(data + 1);
  if (throughBoth(codes, size - 1, bitRate, block) != throughBoth(codes, size - 1, bitRate, size - 1))
    std::abort();
  return 0;
}
