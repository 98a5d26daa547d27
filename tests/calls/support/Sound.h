// Sound files for phones to play, and what can be said of the sound that arrived.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

struct Sound {
  int rate = 8000;  // samples a second
  std::vector<std::int16_t> samples;

  double seconds() const { return static_cast<double>(samples.size()) / rate; }
};

// 16-bit mono WAV. A file that is still being written, or was left without a final header, is read to its
// end.
Sound readWav(const std::filesystem::path& file);
void writeWav(const std::filesystem::path& file, const Sound& sound);

// 16 kHz sound low-passed and halved to 8 kHz; 8 kHz sound as it is.
Sound atTelephoneRate(const Sound& sound);

// A talker (espeak-ng) at that rate, as long as the text takes, peaks at half of full scale. Empty when the
// programs for it are missing. Different voices say the text differently.
Sound spoken(const std::string& text, const std::string& voice, int rate,
             const std::filesystem::path& scratch);

// How a stretch of half a second of the sound heard compares with what was played.
struct Match {
  double second = 0;       // where in the sound heard it starts
  double correlation = 0;  // normalised, 1 for the same sound at any volume
  double lag = 0;          // seconds by which it comes later in the sound heard than in the one played
};

// One match for each half second of `heard` that holds speech, each at its own best lag within 60 ms of the
// one that fits the whole best, because a phone may drop or insert a packet's worth of sound. The sound heard
// begins with the one played, or, if given, somewhere within so many seconds of it.
std::vector<Match> matches(const Sound& played, const Sound& heard, double beginsWithin = 0);
// The middle value of the matches' correlations; 0 without matches.
double medianCorrelation(const std::vector<Match>& all);
