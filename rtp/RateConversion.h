// Between 8 and 16 kHz, in place. Plain averaging of neighbours: cheap, without delay, and exact for the
// signals of telephony, which end below 3.4 kHz.
#pragma once

#include <cstdint>

// n samples at 8 kHz become 2n at 16 kHz: each sample is kept, with the mean of it and its predecessor put
// before it (the first sample is repeated). The buffer holds 2n samples.
void duplicateNumberOfSamples(std::int16_t* samples, int n);

// n samples at 16 kHz become n / 2 at 8 kHz, each the mean of a pair.
void divideNumberOfSamples(std::int16_t* samples, int n);
