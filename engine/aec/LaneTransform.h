// Fourier transforms of several real signals at once, four per vector register and as many registers side by
// side as the caller wants, in single precision: the transforms of 16 filter partitions cost little more than
// four single ones.
//
// Lengths are 8 to 512, powers of two. Forward is unnormalised, X[k] = sum x[j] e^(-2 pi i j k / n) for k = 0
// .. n/2; inverse is its exact inverse and destroys its input.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <numbers>
#include <utility>

namespace lanes {

inline constexpr std::size_t kMaxLength = 512;
inline constexpr std::size_t kMaxBins = kMaxLength / 2 + 1;
inline constexpr std::size_t kPerVector = 4;

// An extension that GCC and clang share; arithmetic works on all four values at once.
using Vector = float __attribute__((vector_size(16)));

template <std::size_t kVectors>
using Lanes = std::array<Vector, kVectors>;

template <std::size_t kVectors>
inline float lane(const Lanes<kVectors>& values, std::size_t l) {
  return values[l / kPerVector][l % kPerVector];
}
template <std::size_t kVectors>
inline void setLane(Lanes<kVectors>& values, std::size_t l, float fValue) {
  values[l / kPerVector][l % kPerVector] = fValue;
}
inline float sum(Vector v) {
  return (v[0] + v[1]) + (v[2] + v[3]);
}

inline float largest(Vector v) {
  return std::max(std::max(v[0], v[1]), std::max(v[2], v[3]));
}

inline Vector larger(Vector a, Vector b) {
  return a > b ? a : b;
}
inline Vector magnitude(Vector v) {
  return larger(v, -v);
}
// Within -fLimit .. fLimit.
inline Vector clamped(Vector v, float fLimit) {
  const Vector limit = Vector{} + fLimit;
  return -larger(-larger(v, -limit), -limit);
}

// Sum and largest of the magnitudes of uCount values, a multiple of 16.
struct sSums {
  float fSum = 0;
  float fLargest = 0;
};
inline sSums magnitudes(const float* pfValues, std::size_t uCount) {
  std::array<Vector, 4> sums{};
  std::array<Vector, 4> most{};
  for (std::size_t i = 0; i < uCount; i += 16) {
    std::array<Vector, 4> x;
    std::memcpy(x.data(), pfValues + i, sizeof x);
    for (std::size_t v = 0; v < 4; ++v) {
      sums[v] += magnitude(x[v]);
      most[v] = larger(most[v], magnitude(x[v]));
    }
  }
  sSums result{.fSum = sum((sums[0] + sums[1]) + (sums[2] + sums[3]))};
  for (const Vector& v : most) result.fLargest = std::max(result.fLargest, largest(v));
  return result;
}

template <std::size_t kVectors>
struct Spectrum {
  std::array<Lanes<kVectors>, kMaxBins> re{};
  std::array<Lanes<kVectors>, kMaxBins> im{};
};
template <std::size_t kVectors>
struct Signal {
  std::array<Lanes<kVectors>, kMaxLength> x{};
};

// cos and sin of 2 pi k / 512.
struct Twiddles {
  Twiddles() {
    for (std::size_t k = 0; k < kMaxLength; ++k) {
      const double dAngle = 2 * std::numbers::pi * static_cast<double>(k) / static_cast<double>(kMaxLength);
      fCos[k] = static_cast<float>(std::cos(dAngle));
      fSin[k] = static_cast<float>(std::sin(dAngle));
    }
  }
  std::array<float, kMaxLength> fCos{};
  std::array<float, kMaxLength> fSin{};
};
inline const Twiddles twiddles;

template <std::size_t kVectors>
class Transform {
 public:
  using Values = Spectrum<kVectors>;

  static void forward(std::size_t n, const Signal<kVectors>& in, Values& out) {
    for (std::size_t j = 0; j < n / 2; ++j) {
      out.re[j] = in.x[2 * j];
      out.im[j] = in.x[2 * j + 1];
    }
    complex(n / 2, out, -1.0F);
    split(n, out);
  }

  static void inverse(std::size_t n, Values& in, Signal<kVectors>& out) {
    join(n, in);
    complex(n / 2, in, +1.0F);
    const float fScale = 2.0F / static_cast<float>(n);
    for (std::size_t j = 0; j < n / 2; ++j) {
      for (std::size_t v = 0; v < kVectors; ++v) {
        out.x[2 * j][v] = in.re[j][v] * fScale;
        out.x[2 * j + 1][v] = in.im[j][v] * fScale;
      }
    }
  }

 private:
  static void reorder(std::size_t n, Values& values) {
    for (std::size_t i = 1, j = 0; i < n; ++i) {
      std::size_t uBit = n >> 1;
      for (; (j & uBit) != 0; uBit >>= 1) j ^= uBit;
      j ^= uBit;
      if (i >= j) continue;
      std::swap(values.re[i], values.re[j]);
      std::swap(values.im[i], values.im[j]);
    }
  }

  static void butterfly(Values& values, std::size_t a, std::size_t b, float c, float s) {
    for (std::size_t v = 0; v < kVectors; ++v) {
      const Vector br = values.re[b][v];
      const Vector bi = values.im[b][v];
      const Vector ar = values.re[a][v];
      const Vector ai = values.im[a][v];
      const Vector re = br * c - bi * s;
      const Vector im = br * s + bi * c;
      values.re[b][v] = ar - re;
      values.im[b][v] = ai - im;
      values.re[a][v] = ar + re;
      values.im[a][v] = ai + im;
    }
  }

  // Radix-2 transform of n complex values.
  static void complex(std::size_t n, Values& values, float fSign) {
    reorder(n, values);
    for (std::size_t uLength = 2; uLength <= n; uLength *= 2) {
      const std::size_t uHalf = uLength / 2;
      const std::size_t uStep = kMaxLength / uLength;
      for (std::size_t k = 0; k < uHalf; ++k) {
        const float c = twiddles.fCos[k * uStep];
        const float s = fSign * twiddles.fSin[k * uStep];
        for (std::size_t i = k; i < n; i += uLength) butterfly(values, i, i + uHalf, c, s);
      }
    }
  }

  // From the transform of n/2 complex values (even samples real, odd ones imaginary) to the spectrum of the n
  // reals: X[k] = (Z[k] + Z*[m]) / 2 - i w (Z[k] - Z*[m]) / 2, m = n/2 - k, w = e^(-2 pi i k / n).
  static void split(std::size_t n, Values& values) {
    const std::size_t h = n / 2;
    for (std::size_t v = 0; v < kVectors; ++v) {
      const Vector re = values.re[0][v];
      const Vector im = values.im[0][v];
      values.re[0][v] = re + im;
      values.re[h][v] = re - im;
      values.im[0][v] = values.im[h][v] = Vector{};
    }
    for (std::size_t k = 1; k <= h / 2; ++k) {
      const std::size_t m = h - k;
      const float c = twiddles.fCos[k * (kMaxLength / n)];
      const float s = twiddles.fSin[k * (kMaxLength / n)];
      for (std::size_t v = 0; v < kVectors; ++v) {
        const Vector evenRe = (values.re[k][v] + values.re[m][v]) * 0.5F;
        const Vector evenIm = (values.im[k][v] - values.im[m][v]) * 0.5F;
        const Vector oddRe = (values.im[k][v] + values.im[m][v]) * 0.5F;
        const Vector oddIm = (values.re[m][v] - values.re[k][v]) * 0.5F;
        const Vector re = oddRe * c + oddIm * s;
        const Vector im = oddIm * c - oddRe * s;
        values.re[k][v] = evenRe + re;
        values.im[k][v] = evenIm + im;
        values.re[m][v] = evenRe - re;
        values.im[m][v] = im - evenIm;
      }
    }
  }

  // The inverse of split.
  static void join(std::size_t n, Values& values) {
    const std::size_t h = n / 2;
    for (std::size_t v = 0; v < kVectors; ++v) {
      const Vector zero = values.re[0][v];
      const Vector top = values.re[h][v];
      values.re[0][v] = (zero + top) * 0.5F;
      values.im[0][v] = (zero - top) * 0.5F;
    }
    for (std::size_t k = 1; k <= h / 2; ++k) {
      const std::size_t m = h - k;
      const float c = twiddles.fCos[k * (kMaxLength / n)];
      const float s = twiddles.fSin[k * (kMaxLength / n)];
      for (std::size_t v = 0; v < kVectors; ++v) {
        const Vector evenRe = (values.re[k][v] + values.re[m][v]) * 0.5F;
        const Vector evenIm = (values.im[k][v] - values.im[m][v]) * 0.5F;
        const Vector diffRe = (values.re[k][v] - values.re[m][v]) * 0.5F;
        const Vector diffIm = (values.im[k][v] + values.im[m][v]) * 0.5F;
        const Vector oddRe = diffRe * c - diffIm * s;
        const Vector oddIm = diffRe * s + diffIm * c;
        values.re[k][v] = evenRe - oddIm;
        values.im[k][v] = evenIm + oddRe;
        values.re[m][v] = evenRe + oddIm;
        values.im[m][v] = oddRe - evenIm;
      }
    }
  }
};

}  // namespace lanes
