// Eight 16-bit lanes side by side, and the three products of them that the G.722 codec needs. SSE2, which
// every x86-64 has, does each in one to five instructions; elsewhere plain loops give the same numbers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#ifdef __SSE2__
#include <emmintrin.h>
#endif

inline constexpr std::size_t kLanes = 8;
using Lanes [[gnu::vector_size(16)]] = std::int16_t;
using UnsignedLanes [[gnu::vector_size(16)]] = std::uint16_t;
using WideLanes [[gnu::vector_size(16)]] = std::int32_t;  // four

inline Lanes loadLanes(const std::int16_t* from) {
  Lanes lanes;
  std::memcpy(&lanes, from, sizeof lanes);
  return lanes;
}

// Upper half of each lane's product: (a * b) >> 16.
inline Lanes highProduct(Lanes a, Lanes b) {
#ifdef __SSE2__
  return reinterpret_cast<Lanes>(_mm_mulhi_epi16(reinterpret_cast<__m128i>(a), reinterpret_cast<__m128i>(b)));
#else
  Lanes high;
  for (std::size_t i = 0; i < kLanes; ++i) high[i] = static_cast<std::int16_t>((a[i] * b[i]) >> 16);
  return high;
#endif
}

// Products of neighbours added up: a[2i] * b[2i] + a[2i + 1] * b[2i + 1].
inline WideLanes pairProduct(Lanes a, Lanes b) {
#ifdef __SSE2__
  return reinterpret_cast<WideLanes>(
      _mm_madd_epi16(reinterpret_cast<__m128i>(a), reinterpret_cast<__m128i>(b)));
#else
  WideLanes sums;
  for (std::size_t i = 0; i < kLanes / 2; ++i) sums[i] = a[2 * i] * b[2 * i] + a[2 * i + 1] * b[2 * i + 1];
  return sums;
#endif
}

// Moves every lane up by one, drops the last one and puts a new value into lane 0.
inline Lanes shiftIn(Lanes lanes, std::int16_t first) {
#ifdef __SSE2__
  lanes = reinterpret_cast<Lanes>(_mm_slli_si128(reinterpret_cast<__m128i>(lanes), sizeof first));
#else
  for (std::size_t i = kLanes - 1; i > 0; --i) lanes[i] = lanes[i - 1];
#endif
  lanes[0] = first;
  return lanes;
}

// Sum over the lanes of (a * b) >> 15, each product shifted by itself, as Q15 filters of the ITU-T are
// defined. No product may be -32768 * -32768.
inline int sumOfQ15Products(Lanes a, Lanes b) {
#ifdef __SSE2__
  const auto doubledHigh = reinterpret_cast<UnsignedLanes>(highProduct(a, b)) << 1;
  const auto low = reinterpret_cast<UnsignedLanes>(a) * reinterpret_cast<UnsignedLanes>(b);
  const auto products = reinterpret_cast<Lanes>(doubledHigh | (low >> 15));
  const WideLanes pairs = pairProduct(products, Lanes{1, 1, 1, 1, 1, 1, 1, 1});
  const WideLanes halves = pairs + __builtin_shufflevector(pairs, pairs, 2, 3, 0, 1);
  return halves[0] + halves[1];
#else
  int sum = 0;
  for (std::size_t i = 0; i < kLanes; ++i) sum += (a[i] * b[i]) >> 15;
  return sum;
#endif
}
