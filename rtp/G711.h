// G.711 companding: 16-bit linear samples to and from the 8-bit A-law and mu-law character signals as they
// stand in an RTP payload (RFC 3551: A-law with its even bits inverted, mu-law with all bits inverted).
//
// Decoding gives the output values of ITU-T G.711 tables 1 and 2, 13-bit (A-law) and 14-bit (mu-law) values
// aligned to the high end of 16 bits. Encoding picks the interval between two of the Recommendation's
// decision values. Which interval a sample on a decision value belongs to is left open there; here
//   A-law   to the one above it (towards +infinity), so that each interval holds whole groups of 16 samples;
//   mu-law  to the one below it, after the cut to 14 bits by arithmetic shift, so that each interval holds
//           whole groups of 8 samples.
// The packet path's tables know one code per 8 samples, counted from the lowest: with these rules it is the
// code of each of the eight, and decoding and encoding again changes no audible code, however often.
//
// These are the definitions, from which look-up tables are filled; the packet path reads only the tables.
// Every argument value is valid.
#pragma once

// Linear value of a code: A-law -32256..32256, mu-law -32124..32124.
[[nodiscard]] short alaw2linear(unsigned char code) noexcept;
[[nodiscard]] short ulaw2linear(unsigned char code) noexcept;

// Code of a linear sample. mu-law clips at 8159 of its 14 bits, the Recommendation's last decision value.
[[nodiscard]] unsigned char linear2alaw(short sample) noexcept;
[[nodiscard]] unsigned char linear2ulaw(short sample) noexcept;
