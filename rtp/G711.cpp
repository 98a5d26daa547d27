#include "rtp/G711.h"

#include <algorithm>
#include <bit>

namespace {

constexpr int kSignBit = 0x80;    // set for positive samples, before mu-law's inversion of all bits
constexpr int kStepMask = 0x0F;   // place within a segment: 16 equal steps
constexpr int kSegmentShift = 4;  // segment number, 0 to 7, above the steps
constexpr int kSegmentMask = 0x70;
constexpr int kALawEvenBits = 0x55;  // the bits that A-law inverts for transmission
constexpr int kMuLawAllBits = 0xFF;  // mu-law inverts all

constexpr int kMuLawBias = 132;  // 33 of the 14-bit scale: makes every segment start at a power of two
constexpr int kMuLawClip = 8159;
constexpr int kMuLawShift = 2;  // from 16 to 14 bits
constexpr int kALawShift = 4;   // from 16 bits to the width of A-law's first step

// Segment and step of a magnitude of 16 to 31 steps in the segment numbered first, 32 to 63 in the next, and
// so on.
int segmentAndStep(int magnitude, int first) {
  const int doublings = std::max(static_cast<int>(std::bit_width(static_cast<unsigned>(magnitude))) - 5, 0);
  return ((doublings + first) << kSegmentShift) | ((magnitude >> doublings) & kStepMask);
}

short withSign(int magnitude, bool positive) {
  return static_cast<short>(positive ? magnitude : -magnitude);
}

}  // namespace

short alaw2linear(unsigned char code) noexcept {
  const int plain = code ^ kALawEvenBits;
  const int segment = (plain & kSegmentMask) >> kSegmentShift;
  // Twice the middle of the step, in units of the first step; segment 0 has the step width of segment 1.
  const int twiceMiddle = 2 * (plain & kStepMask) + 1 + (segment > 0 ? 32 : 0);
  const int magnitude = (twiceMiddle << (kALawShift - 1)) << std::max(segment - 1, 0);
  return withSign(magnitude, (plain & kSignBit) != 0);
}

short ulaw2linear(unsigned char code) noexcept {
  const int plain = code ^ kMuLawAllBits;
  const int segment = (plain & kSegmentMask) >> kSegmentShift;
  const int twiceMiddle = 2 * (plain & kStepMask) + 33;  // in half steps of the segment, bias included
  const int magnitude = (twiceMiddle << (segment + kMuLawShift)) - kMuLawBias;
  return withSign(magnitude, (plain & kSignBit) == 0);
}

unsigned char linear2alaw(short sample) noexcept {
  const bool positive = sample >= 0;
  // One's complement puts -1..-16 into the first step below zero, as 0..15 are in the first above it.
  const int magnitude = (positive ? sample : ~sample) >> kALawShift;
  const int code = magnitude < 16 ? magnitude : segmentAndStep(magnitude, 1);
  return static_cast<unsigned char>((code | (positive ? kSignBit : 0)) ^ kALawEvenBits);
}

unsigned char linear2ulaw(short sample) noexcept {
  const bool positive = sample >= 0;
  const int cut = sample >> kMuLawShift;
  // Above zero "the interval below" is the one nearer to zero, below zero the one farther from it: one less
  // on the positive side makes a decision value fall short of the next step, on the negative side it just
  // reaches it.
  const int biased = (positive ? cut - 1 : -cut) + (kMuLawBias >> kMuLawShift);
  const int limited = std::min(biased, kMuLawClip + (kMuLawBias >> kMuLawShift) - 1);
  const int code = segmentAndStep(limited >> 1, 0);
  return static_cast<unsigned char>((code | (positive ? 0 : kSignBit)) ^ kMuLawAllBits);
}
