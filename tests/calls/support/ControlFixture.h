// A running Quorvel, and quorvelctl asked about it.
#pragma once

#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "tests/calls/support/TalkFixture.h"

class ControlFixture : public TalkFixture {
 protected:
  struct Answer {
    int status = -1;
    std::string text;
  };

  Answer control(std::vector<std::string> words) {
    words.insert(words.begin(), {"-i", quorvel->instanceName(), "-c", quorvel->configuration().string()});
    return controlAsGiven(words, {{"KESTROVA_BIN", quorvel->bin().string() + "/"}});
  }

  Answer controlAsGiven(const std::vector<std::string>& words, const Process::Environment& environment) {
    std::filesystem::remove(scratch.path() / "quorvelctl.out");  // output is appended
    Process process(QUORVELCTL, words, scratch.path() / "quorvelctl.out", environment);
    const auto status = process.wait(Seconds(30));
    return {status.value_or(-1), process.output()};
  }

  // The first sample of that name in a text of metrics, or in one asked for now; -1 without it.
  static double metricIn(const std::string& text, const std::string& name) {
    std::smatch value;
    const std::regex pattern("(^|\n)quorvel_" + name + "\\{[^}]*\\} ([-0-9.e+]+)\n");
    return std::regex_search(text, value, pattern) ? std::stod(value[2]) : -1;
  }
  double metric(const std::string& name) { return metricIn(control({"metrics"}).text, name); }
};
