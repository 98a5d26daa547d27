// The MD5 message digest of RFC 1321. It serves SIP digest answers (RFC 2617) and nothing else: MD5 protects
// nothing by itself any more.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string_view>

#include "common/FixedText.h"

class MD5 {
 public:
  static constexpr std::size_t kBlockBytes = 64;
  static constexpr std::size_t kDigestBytes = 16;

  struct sContext {
    std::array<std::uint32_t, 4> uState{};
    std::uint64_t uBits = 0;  // length of the text so far
    std::array<unsigned char, kBlockBytes> pbBuffer{};
  };
  using Digest = std::array<unsigned char, kDigestBytes>;
  using HexDigest = FixedText<2 * kDigestBytes + 1>;

  static void init(sContext& context);
  static void update(sContext& context, std::string_view text);
  static Digest final(sContext& context);
  // Folds one block of 64 bytes into the state.
  static void transform(std::array<std::uint32_t, 4>& state, const unsigned char* block);

  // Digest of the texts one after the other, as 32 lower-case hexadecimal digits. No length is too long.
  static HexDigest hash(std::initializer_list<std::string_view> texts);
  static HexDigest hash(std::string_view text) { return hash({text}); }
};
