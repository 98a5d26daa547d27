// Loads configurations that differ from a minimal one in the lines a test is about.
#pragma once

#include <gtest/gtest.h>
#include <map>
#include <string>
#include <string_view>

#include "app/config/KeyRegistry.h"
#include "tests/support/TestInstallation.h"

using Assignments = std::map<std::string, std::string>;

class ConfigurationTest : public ::testing::Test {
 protected:
  ConfigurationTest();

  // The keys that have no default, with the PBX at 127.0.0.1.
  static Assignments requiredKeys();
  // One line per key; `lines` stand behind them.
  static std::string fileText(const Assignments& keys, std::string_view lines = "");

  // Result of readParams on the required keys with these changes; an empty value leaves the key out.
  int load(const Assignments& changes = {}, bool reload = false);
  // The same with lines that stand behind the required keys.
  int loadLines(std::string_view lines, bool reload = false);
  int loadText(std::string_view text, bool reload = false);

  // Is this the one error of the last load, from readParams unless said otherwise?
  void expectOnlyError(const std::string& message,
                       std::string_view function = "MyConfiguration::readParams") const;

  TestInstallation installation;
};

// What a setting holds, as text: list of expressions joined by ';' for those keys.
std::string settingText(std::string_view key);
