// MD5, RFC 1321 section 3.
#include "sip/MD5.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace {

constexpr std::size_t kSteps = 64;
constexpr std::size_t kStepsPerRound = 16;
constexpr std::size_t kLengthBytes = 8;
constexpr std::size_t kLengthPosition = MD5::kBlockBytes - kLengthBytes;
constexpr unsigned char kPaddingStart = 0x80;

// Entry i is the integer part of 2^32 * |sin(i + 1)|.
constexpr std::array<std::uint32_t, kSteps> kSines{
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391,
};

// Left rotations of the four steps that each round repeats.
constexpr std::array<std::array<int, 4>, 4> kRotations{{
    {7, 12, 17, 22},
    {5, 9, 14, 20},
    {4, 11, 16, 23},
    {6, 10, 15, 21},
}};

std::uint32_t loadLittleEndian(const unsigned char* bytes) {
  return static_cast<std::uint32_t>(bytes[0]) | static_cast<std::uint32_t>(bytes[1]) << 8 |
         static_cast<std::uint32_t>(bytes[2]) << 16 | static_cast<std::uint32_t>(bytes[3]) << 24;
}

// The round's auxiliary function: F, G, H, I.
std::uint32_t mix(std::size_t round, std::uint32_t x, std::uint32_t y, std::uint32_t z) {
  switch (round) {
    case 0:
      return (x & y) | (~x & z);
    case 1:
      return (x & z) | (y & ~z);
    case 2:
      return x ^ y ^ z;
    default:
      return y ^ (x | ~z);
  }
}

// Which of the block's 16 words a step takes.
std::size_t wordOf(std::size_t step) {
  switch (step / kStepsPerRound) {
    case 0:
      return step;
    case 1:
      return (5 * step + 1) % kStepsPerRound;
    case 2:
      return (3 * step + 5) % kStepsPerRound;
    default:
      return 7 * step % kStepsPerRound;
  }
}

}  // namespace

void MD5::init(sContext& context) {
  context = sContext{};
  context.uState = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};
}

void MD5::transform(std::array<std::uint32_t, 4>& state, const unsigned char* block) {
  auto [a, b, c, d] = state;
  for (std::size_t step = 0; step < kSteps; ++step) {
    const std::size_t round = step / kStepsPerRound;
    const std::uint32_t sum =
        a + mix(round, b, c, d) + loadLittleEndian(block + 4 * wordOf(step)) + kSines[step];
    a = d;
    d = c;
    c = b;
    b += std::rotl(sum, kRotations[round][step % 4]);
  }
  state[0] += a;
  state[1] += b;
  state[2] += c;
  state[3] += d;
}

void MD5::update(sContext& context, std::string_view text) {
  std::size_t filled = context.uBits / 8 % kBlockBytes;
  context.uBits += static_cast<std::uint64_t>(text.size()) * 8;
  while (!text.empty()) {
    const std::size_t taken = std::min(kBlockBytes - filled, text.size());
    std::memcpy(context.pbBuffer.data() + filled, text.data(), taken);
    text.remove_prefix(taken);
    filled += taken;
    if (filled == kBlockBytes) {
      transform(context.uState, context.pbBuffer.data());
      filled = 0;
    }
  }
}

MD5::Digest MD5::final(sContext& context) {
  const std::uint64_t bits = context.uBits;
  std::size_t filled = bits / 8 % kBlockBytes;
  auto& buffer = context.pbBuffer;
  buffer[filled++] = kPaddingStart;
  if (filled > kLengthPosition) {  // no room left for the length: it goes into a block of its own
    std::fill(buffer.begin() + static_cast<std::ptrdiff_t>(filled), buffer.end(), 0);
    transform(context.uState, buffer.data());
    filled = 0;
  }
  std::fill(buffer.begin() + static_cast<std::ptrdiff_t>(filled), buffer.begin() + kLengthPosition, 0);
  for (std::size_t i = 0; i < kLengthBytes; ++i)
    buffer[kLengthPosition + i] = static_cast<unsigned char>(bits >> 8 * i);
  transform(context.uState, buffer.data());

  Digest digest{};
  for (std::size_t i = 0; i < kDigestBytes; ++i)
    digest[i] = static_cast<unsigned char>(context.uState[i / 4] >> 8 * (i % 4));
  return digest;
}

MD5::HexDigest MD5::hash(std::initializer_list<std::string_view> texts) {
  constexpr std::string_view kHexDigits = "0123456789abcdef";
  sContext context;
  init(context);
  for (const std::string_view text : texts) update(context, text);
  std::array<char, 2 * kDigestBytes> digits{};
  std::size_t position = 0;
  for (const unsigned char byte : final(context)) {
    digits[position++] = kHexDigits[byte >> 4];
    digits[position++] = kHexDigits[byte & 15];
  }
  HexDigest result;
  result.assignCut({digits.data(), digits.size()});
  return result;
}
