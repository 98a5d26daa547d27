#include "rtp/RateConversion.h"

namespace {

std::int16_t mean(std::int16_t left, std::int16_t right) {
  return static_cast<std::int16_t>((left + right) >> 1);
}

}  // namespace

void duplicateNumberOfSamples(std::int16_t* samples, int n) {
  if (n <= 0) return;
  // From the end, so that nothing is overwritten before it was used.
  for (int i = n - 1; i > 0; --i) {
    const std::int16_t current = samples[i];
    samples[2 * i + 1] = current;
    samples[2 * i] = mean(samples[i - 1], current);
  }
  samples[1] = samples[0];
}

void divideNumberOfSamples(std::int16_t* samples, int n) {
  for (int i = 0; i < n / 2; ++i) samples[i] = mean(samples[2 * i], samples[2 * i + 1]);
}
