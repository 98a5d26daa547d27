// The constant tables of ITU-T Recommendation G.722 under the names that the codec uses. Encoder and decoder
// have their own names for tables that the Recommendation shares between them.
#pragma once

#include <array>
#include <cstdint>

// Transmit and receive QMF, scaled by 2^13: in each pair the weight of the older and of the newer sample of
// the delay line, oldest pair first. The impulse response is symmetric, so the second column is the first one
// read from the end.
inline constexpr std::array<std::array<std::int16_t, 2>, 12> piEncodeQmfCoeffs{{
    {3, -11},
    {-11, 53},
    {12, -156},
    {32, 362},
    {-210, -805},
    {951, 3876},
    {3876, 951},
    {-805, -210},
    {362, 32},
    {-156, 12},
    {53, -11},
    {-11, 3},
}};
inline constexpr const auto& piDecodeQmfCoeff = piEncodeQmfCoeffs;

// Lower band, 6 bits: decision levels of the difference in units of the scale factor, and the code word of
// each interval for a negative and a non-negative difference. Interval m, counted from 1, starts at level m
// - 1.
inline constexpr std::array<std::int16_t, 30> piEncodeQ6{
    0,   35,  72,  110, 150,  190,  233,  276,  323,  370,  422,  473,  530,  587,  650,
    714, 786, 858, 940, 1023, 1121, 1219, 1339, 1458, 1612, 1765, 1980, 2195, 2557, 2919};
inline constexpr std::array<std::uint8_t, 31> piEncodeQuantizationNegative{
    0,  63, 62, 31, 30, 29, 28, 27, 26, 25, 24, 23, 22, 21, 20, 19,
    18, 17, 16, 15, 14, 13, 12, 11, 10, 9,  8,  7,  6,  5,  4};
inline constexpr std::array<std::uint8_t, 31> piEncodeQuantizationPositive{
    0,  61, 60, 59, 58, 57, 56, 55, 54, 53, 52, 51, 50, 49, 48, 47,
    46, 45, 44, 43, 42, 41, 40, 39, 38, 37, 36, 35, 34, 33, 32};

// Inverse quantiser of the 6-bit code word: magnitudes by interval, interval and sign of each code word
// (table 18). The four code words that no encoder sends read as the smallest negative value.
inline constexpr std::array<std::int16_t, 31> piDecodeQQ6{
    0,    136,  432,  728,  1040, 1360, 1688,  2032,  2400,  2776,  3168,  3576,  4008,  4464,  4944, 5456,
    6000, 6576, 7192, 7856, 8576, 9360, 10232, 11192, 12280, 13512, 14984, 16704, 19008, 21904, 24808};
inline constexpr std::array<std::uint8_t, 64> piDecodeIL6FromTable18{
    1,  1,  1,  1,  30, 29, 28, 27, 26, 25, 24, 23, 22, 21, 20, 19, 18, 17, 16, 15, 14, 13,
    12, 11, 10, 9,  8,  7,  6,  5,  4,  3,  30, 29, 28, 27, 26, 25, 24, 23, 22, 21, 20, 19,
    18, 17, 16, 15, 14, 13, 12, 11, 10, 9,  8,  7,  6,  5,  4,  3,  2,  1,  2,  1};
inline constexpr std::array<std::int8_t, 64> piDecodeSILFromTable18{
    -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1,
    -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 1,  1,  1,  1,  1,  1,  1,  1,  1,  1,  1,  1,
    1,  1,  1,  1,  1,  1,  1,  1,  1,  1,  1,  1,  1,  1,  1,  1,  1,  1,  -1, -1};

// The same for the 5-bit code word of 56 kbit/s (table 19).
inline constexpr std::array<std::int16_t, 16> piDecodeQQ5{0,    280,  880,  1520, 2208,  2960,  3784,  4696,
                                                          5712, 6864, 8184, 9752, 11664, 14120, 17560, 23352};
inline constexpr std::array<std::uint8_t, 32> piDecodeIL5FromTable19{1, 1, 15, 14, 13, 12, 11, 10, 9,  8,  7,
                                                                     6, 5, 4,  3,  2,  15, 14, 13, 12, 11, 10,
                                                                     9, 8, 7,  6,  5,  4,  3,  2,  1,  1};
inline constexpr std::array<std::int8_t, 32> piDecodeSILFromTable19{
    -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1,
    1,  1,  1,  1,  1,  1,  1,  1,  1,  1,  1,  1,  1,  1,  1,  -1};

// The same for the 4-bit code word, which is what 48 kbit/s sends and what the predictors adapt on at every
// bit rate (table 17).
inline constexpr std::array<std::int16_t, 8> piEncodeQQ4{0, 1200, 2584, 4240, 6288, 8968, 12896, 20456};
inline constexpr std::array<std::uint8_t, 16> piEncodeIL4FromTable17{0, 7, 6, 5, 4, 3, 2, 1,
                                                                     7, 6, 5, 4, 3, 2, 1, 0};
inline constexpr std::array<std::int8_t, 16> piEncodeSILFromTable17{-1, -1, -1, -1, -1, -1, -1, -1,
                                                                    1,  1,  1,  1,  1,  1,  1,  -1};
inline constexpr const auto& piDecodeQQ4 = piEncodeQQ4;
inline constexpr const auto& piDecodeIL4FromTable17 = piEncodeIL4FromTable17;
inline constexpr const auto& piDecodeSILFromTable17 = piEncodeSILFromTable17;

// What a lower-band magnitude adds to the logarithm of the scale factor, by interval of the 4-bit quantiser.
inline constexpr std::array<std::int16_t, 8> piEncodeWl{-60, -30, 58, 172, 334, 538, 1198, 3042};
inline constexpr const auto& piDecodeWl = piEncodeWl;

// Logarithm to linear (table 15): 2^11 * 2^(i / 32).
inline constexpr std::array<std::int16_t, 32> piEncodeLb{
    2048, 2093, 2139, 2186, 2233, 2282, 2332, 2383, 2435, 2489, 2543, 2599, 2656, 2714, 2774, 2834,
    2896, 2960, 3025, 3091, 3158, 3228, 3298, 3371, 3444, 3520, 3597, 3676, 3756, 3838, 3922, 4008};
inline constexpr const auto& piDecodeIlbFromTable15 = piEncodeLb;

// Upper band, 2 bits: code word of interval 1 (small) and 2 (large) for a negative and a non-negative
// difference.
inline constexpr std::array<std::uint8_t, 3> piEncodeIhNegative{0, 1, 0};
inline constexpr std::array<std::uint8_t, 3> piEncodeIhPositive{0, 3, 2};

// Inverse quantiser of the upper band: magnitudes by interval, interval and sign of each code word (table
// 21).
inline constexpr std::array<std::int16_t, 3> piEncodeQQ2{0, 1616, 7408};
inline constexpr std::array<std::uint8_t, 4> piEncodeIH2FromTable21{2, 1, 2, 1};
inline constexpr std::array<std::int8_t, 4> piEncodeSIHFromTable21{-1, -1, 1, 1};
inline constexpr const auto& piDecodeQQ2 = piEncodeQQ2;
inline constexpr const auto& piDecodeIH2FromTable21 = piEncodeIH2FromTable21;
inline constexpr const auto& piDecodeSIHFromTable21 = piEncodeSIHFromTable21;

// What an upper-band magnitude adds to the logarithm of the scale factor, by interval.
inline constexpr std::array<std::int16_t, 3> piEncodeWh{0, -214, 798};
inline constexpr const auto& piDecodeWh = piEncodeWh;
