// Command line of kestrova-wav: one option per field of sKestrovaInit, with the configuration's defaults.
#pragma once

#include <optional>
#include <string>

#include "engine/Kestrova.h"

struct Options {
  Options();

  sKestrovaInit init{};
  int iCPUPower = 5;
  bool bCombo = false;
  bool bAlign = false;
  std::string sMicrophone;
  std::string sSpeaker;
  std::string sOut;
  std::string sCsv;
};

// Fills the options. An exit status when the program is to end at once (help, or a bad command line, which
// has been reported); throws nothing.
std::optional<int> parseOptions(int argc, char** argv, Options& options);
