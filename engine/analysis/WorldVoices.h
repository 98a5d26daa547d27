// What voiced sounds of all voices look like. A sound that is nearer to the learned talker's than to these is
// likely to be his: every score of a voice is such a difference (the background model of Reynolds, Quatieri
// and Dunn, Digital Signal Processing 10, 2000, in the form of a codebook).
#pragma once

#include "engine/analysis/VoiceEnvelope.h"

inline constexpr int kWorldVoices = 64;
inline constexpr int kFineWorldVoices = 256;

extern const std::array<float, kEnvelopeCoefficients> kEnvelopeDeviation;
// Few of them: how like two groups of sounds are, of which each is known by few sounds.
extern const std::array<sPackedEnvelope, kWorldVoices> kWorldEnvelopes;
// Many: who has made a sound. Against as many as a talker has clusters of his own, voices that are alike are
// told apart better.
extern const std::array<sPackedEnvelope, kFineWorldVoices> kFineWorldEnvelopes;
