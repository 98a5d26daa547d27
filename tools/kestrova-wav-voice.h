// Learned voices for kestrova-wav, in the files that calls keep them in.
#pragma once

#include <cstdint>
#include <string>

#include "rtp/VoiceProfile.h"

// Ends the channel's registration and writes what was learned. Throws std::runtime_error that says why
// nothing was learned, or why it cannot be written; then there is no such file.
void writeVoice(std::uint16_t uChannel, const std::string& sName);
// Throws std::runtime_error that names the file and what is wrong with it.
VoiceProfile readVoice(const std::string& sName);
