// The engine's parameter console: a few parameters by name, of the first noise channel or of the engine as a
// whole, for people at a terminal and for support. Not for use while the first noise channel runs a call: the
// console takes no part in the channel's threading.
//
//   name                               value                                        printed
//   AudioDirectory                     directory of the engine's audio files        the text
//   MinAmplitudeForPotentialSegment    spread of four cycles that may be speech     the value
//   FrameBufferSize                    frame length in units of 8 samples           the units
//   LookAheadBufferSize                leading silence in units of 8 samples        the units
//   MaxDelayBufferSize                 delay in quarters of a cycle                 the quarters
//   Frequency                          rate in Hz                                   the rate
//   BitsPerSample                      16, or anything else for 8                   16 or 8
//   LastRegistrationFile               -                                            the speaker's name
//   StatusRegistration                 -                                            true or false
//   NewLine, Sync                      -                                            a newline; "Sync "
#pragma once

#include <cstdio>
#include <string_view>

#include "common/FixedText.h"

class MyChannel;

class Cli {
 public:
  virtual ~Cli() = default;

  // Sets a parameter from decimal text, clamped to its range. Unknown names are ignored.
  void setParam(std::string_view name, std::string_view value);
  // Prints the parameter named by the first word of the text, and a blank; an unknown name prints the text.
  void printParam(std::FILE* pFile, const char* pcText);
  // "myClean" and "firstscan" are known and have nothing to print.
  void printObject(std::FILE* pFile, std::string_view name);

  // A channel's sample format: the rate is clamped to 8000..64000 Hz.
  void setChannelRealFormat(MyChannel& channel, int iRate, bool bIs16Bit);
  // The same for noise channel 1.
  void setSpkRealFormat(int iRate, bool bIs16Bit);

  // Reads lines, and prompts for each, until the input ends. With two names the input is a named pipe,
  // created along with the output pipe and opened again whenever a writer closes it; with null names it is
  // the standard input. Lines are read, not interpreted. 0 at the end of the standard input, else the errno
  // of what failed.
  [[nodiscard]] int run(const char* pcInputPipe, const char* pcOutputPipe);

 private:
  void readLines(std::FILE* pInput);
  [[nodiscard]] int runOnPipe(const char* pcInputPipe);

  FixedText<256> pcParamName;
  FixedText<256> pcLine;
};

extern Cli KestrovaCli;
