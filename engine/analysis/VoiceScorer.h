// Scores voiced frames against a learned voice.
#pragma once

#include <array>
#include <span>
#include <vector>

#include "engine/analysis/LearnedVoice.h"

class VoiceScorer {
 public:
  VoiceScorer();  // throws std::bad_alloc
  void learn(const sLearnedVoice& voice, std::span<const sVoicePattern> patterns);
  // How much nearer the envelope is to the talker's sounds than to those of all voices, how much more usual
  // the period is with him, less his threshold. Above 0: rather his. Kept within bounds, since a single frame
  // can be quite wrong.
  [[nodiscard]] float score(const sEnvelope& envelope, int iPeriod) const;
  // Its part for the period alone.
  [[nodiscard]] float periodScore(int iPeriod) const;
  static constexpr float kLowest = -3;
  static constexpr float kHighest = 4;
  // The clusters' envelopes. Without any, nothing can be said of a sound.
  [[nodiscard]] std::span<const sEnvelope> own() const { return ownVoices; }
  [[nodiscard]] bool knowsVoice() const { return !ownVoices.empty(); }

 private:
  static constexpr int kPeriods = 145;  // samples

  void learnPeriods(std::span<const sVoicePattern> patterns);

  std::vector<sEnvelope> ownVoices;  // room for all is taken at once
  EnvelopeSet ownSet;                // the same
  std::array<float, kPeriods> fPeriodScore{};
  float fThreshold = 0;
};
