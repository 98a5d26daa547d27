// Key commands as a phone gives them and hears them answered.
#pragma once

#include <string>

#include "tests/calls/support/QuorvelProcess.h"
#include "tests/calls/support/Sound.h"

// The tones that stand in a sound, in their order: 'O' for the shipped OK tone, 'F' for the fail tone.
std::string tonesIn(const Sound& sound);

// The keys as a phone without telephone events sends them, after a second and a half of silence: 120 ms each
// with pauses of 80 ms, a blank for a second of silence.
Sound keysPressed(const std::string& keys, double seconds, int rate = 8000);

// The shipped tones and the key commands of the sample configuration, with its directories, for a program
// that starts below `home`.
Settings keyCommands(const std::filesystem::path& home);
