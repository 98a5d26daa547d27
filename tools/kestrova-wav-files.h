// WAV files for kestrova-wav: mono, 16-bit, 8 or 16 kHz.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct Wav {
  std::vector<std::int16_t> samples;
  int iRate = 0;
};

// Both throw std::runtime_error that names the file and what is wrong with it.
Wav readWav(const std::string& sName);
void writeWav(const std::string& sName, const Wav& wav);
