// Material for measuring echo cancellers: talkers, echo paths, and the figures by which a result is judged.
// Everything is seeded. 8 or 16 kHz, 16-bit scale, as floats until it is handed to a canceller.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

using Audio = std::vector<float>;

// A path from loudspeaker to microphone: delay, a room of 64 ms of decaying noise, and a loudspeaker that
// bends loud samples a little.
struct EchoPath {
  double dDelayMs = 100;
  double dReturnLossDb = 12;
  unsigned uSeed = 1;
  bool bNonLinear = true;
};

// All of a talker's sentences one after another with pauses between them, dSeconds long, at a level of -26
// dB. sFiles: WAV files of one talker, of the wanted rate.
Audio readTalker(const std::vector<std::string>& sFiles, int iRate, double dSeconds);

Audio echoOf(const Audio& far, const EchoPath& path, int iRate);
// Background as in a quiet office: rms 8, -72 dB.
void addBackground(Audio& audio, unsigned uSeed);
// The same signal as another clock would have sampled it.
Audio drifted(const Audio& audio, double dPartsPerMillion);

double powerDb(const Audio& audio, std::size_t uFrom, std::size_t uTo);
// Echo return loss enhancement: how far the canceller has lowered the microphone, over the frames in which
// there is echo.
double erle(const Audio& mic, const Audio& out, const Audio& echo, std::size_t uFrom, std::size_t uTo);
// `out` moved to where it agrees best with `clean`: what delay a canceller has is its own affair.
Audio aligned(const Audio& clean, const Audio& out, std::size_t uFrom, std::size_t uTo);
// Mean over the active frames of how much of `clean` is in `out`, dB.
double passedDb(const Audio& clean, const Audio& out, std::size_t uFrom, std::size_t uTo);
// Short-time objective intelligibility (Taal et al., 2011) of `out` against `clean`, 0..1.
double stoi(const Audio& clean, const Audio& out, int iRate, std::size_t uFrom, std::size_t uTo);
