// The picture of a run of kestrova-wav: the spectrogram before and after, on one time axis, and under them
// what the engine decided.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

enum class Decision : std::uint8_t { eNothing, eSilence, eSpeech, eConfident, eDtmf };

struct sPicture {
  std::string sTitle;
  int iRate = 0;  // Hz
  std::span<const std::int16_t> before;
  std::span<const std::int16_t> after;
  // One per frame of uFrame samples of the output.
  std::span<const Decision> decisions;
  std::size_t uFrame = 0;
  // An echo channel ran: how far it lowered the microphone is drawn, too.
  bool bEcho = false;
};

// Writes a PNG. Throws std::runtime_error that names the file and what is wrong.
void drawPicture(const std::string& sName, const sPicture& picture);
