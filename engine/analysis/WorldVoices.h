// What voiced sounds of all voices look like. A sound that is nearer to the learned talker's than to these is
// likely to be his: every score of a voice is such a difference (the background model of Reynolds, Quatieri
// and Dunn, Digital Signal Processing 10, 2000, in the form of a codebook).
#pragma once

#include "engine/analysis/VoiceEnvelope.h"

inline constexpr int kWorldVoices = 64;

extern const std::array<float, kEnvelopeCoefficients> kEnvelopeDeviation;
extern const std::array<sPackedEnvelope, kWorldVoices> kWorldEnvelopes;
