// Recorded wideband speech: the prompts of the Debian package asterisk-core-sounds-en-g722.
#pragma once

#include <cstddef>

#include "tests/codec/ReferenceCodecs.h"

// Samples at 16 kHz of all prompts in the order of their names, one after the other, cut at atMost. Each
// prompt is decoded from a fresh state by spandsp, so that nothing jumps where two of them meet. Empty when
// the package is not installed.
Samples recordedSpeech(std::size_t atMost);
