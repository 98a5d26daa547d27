// Command line of kestrova-wav: one option per field of sKestrovaInit. Where a key of the configuration file
// sets the field, its default is the option's.
#pragma once

#include <optional>
#include <string>

#include "engine/Kestrova.h"

struct Options {
  Options();

  sKestrovaInit init{};
  int iCPUPower = 0;
  bool bCombo = false;
  int iAecDelay = 2;  // cycles
  bool bAlign = false;
  bool bLearn = false;  // sOut is the file of a learned voice
  std::string sVoice;   // a learned voice: only it is kept
  std::string sMicrophone;
  std::string sSpeaker;
  std::string sOut;
  std::string sCsv;
  std::string sPicture;
};

// Fills the options. An exit status when the program is to end at once (help, or a bad command line, which
// has been reported); throws nothing.
std::optional<int> parseOptions(int argc, char** argv, Options& options);
