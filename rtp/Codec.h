// The audio codecs that Quorvel transcodes, and the codec list that a leg negotiates. One row per codec
// serves every place that names, numbers or rates a codec.
#pragma once

#include <array>

#include "common/FixedText.h"

// RFC 3551 static payload types. The fourth value exists in tables and is never offered.
enum SUPPORTED_CODECS_IN_QUORVEL : int {
  eCodecG722 = 0,
  eCodecPCMU = 1,
  eCodecPCMA = 2,
  eCodecNotOffered = 3,
};

inline constexpr int kNumCodecValues = 4;
inline constexpr int kMaxCodecsPerLeg = 4;

struct sCodecTiming {
  int iRtcpUnitsPerMs;       // converts jitter totals from RTP timestamp units to milliseconds
  int iTimestampUnitsPerMs;  // converts an RTP timestamp difference to milliseconds
  float fCodecFactor;        // the codec's own MOS impairment
};

struct sCodecRow {
  SUPPORTED_CODECS_IN_QUORVEL eCodec;
  int iPayloadType;    // -1 where the codec is never offered
  const char* pcName;  // rtpmap encoding name as Quorvel writes it
  sCodecTiming sTiming;
};

// Indexed by codec value; the first three rows, in this order, are what every leg starts with.
// G.722 runs at 16 kHz, yet its RTP clock is 8 kHz (RFC 3551 section 4.5.2).
inline constexpr std::array<sCodecRow, kNumCodecValues> kCodecRows{{
    {eCodecG722, 9, "G722/8000", {8, 8, 0.3F}},
    {eCodecPCMU, 0, "pcmu/8000", {8, 8, 0.59F}},
    {eCodecPCMA, 8, "pcma/8000", {8, 8, 0.59F}},
    {eCodecNotOffered, -1, "", {1, 8, 0.99F}},
}};
inline constexpr int kNumOfferedCodecs = 3;
inline constexpr int kMaxPayloadType = 127;  // seven bits in the RTP header

// One entry of a leg's codec list. Entry 0 of a list is the codec that is sent towards the leg.
struct sCodecNegotiationList_t {
  SUPPORTED_CODECS_IN_QUORVEL eCodec = eCodecNotOffered;
  int iPayloadType = -1;  // -1: not yet known
  FixedText<48> pcName;
};

using CodecList = std::array<sCodecNegotiationList_t, kMaxCodecsPerLeg>;
