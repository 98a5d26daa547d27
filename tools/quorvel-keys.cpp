// The configuration file for people and scripts: prints what keys there are, checks a file before the program
// reads it, reads and changes single keys.
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <unistd.h>

#include "app/config/KeyRegistry.h"
#include "app/config/Log.h"
#include "app/config/MyConfiguration.h"
#include "app/config/ProcessState.h"
#include "app/config/TextFile.h"
#include "engine/Glob.h"
#include "rtp/MyRtp.h"
#include "tools/quorvel-keys-print.h"

namespace {

constexpr const char* kUsage =
    "quorvel-keys --sample                  print an annotated configuration file to start from\n"
    "quorvel-keys --manual                  print the manual's list of keys, in Markdown\n"
    "quorvel-keys --check FILE              read a file as the program would at its start (needs "
    "KESTROVA_BIN)\n"
    "quorvel-keys --get FILE KEY            print the value that a file gives a key\n"
    "quorvel-keys --set FILE KEY [VALUE]    change a key in a file; without a value, comment it out\n";

using Words = std::span<char* const>;

// The log file that the check writes is this run's own: shown, then removed.
bool showAndRemoveLog() {
  const std::string path =
      std::string(Glob::pcKestrovaBin.view()) + "../log/errLog" + pcKestrovaInstanceSuffix.c_str();
  const File log = openForReading(path.c_str());
  if (!log) return false;
  LineReader lines(log.get());
  while (lines.next()) std::fwrite(lines.bytes().data(), 1, lines.bytes().size(), stderr);
  unlink(path.c_str());
  return true;
}

// What the media relay refuses when it starts.
bool callsFit() {
  if (descriptorsFor(iNumCallsToFilter) <= kMaxDescriptors) return true;
  Log::error("quorvel-keys", "value of NumCallsToFilter is more than the media relay can carry\n");
  return false;
}

int check(Words words) {
  const char* installation = std::getenv("KESTROVA_BIN");
  if (installation == nullptr || !std::string_view(installation).ends_with('/') ||
      !Glob::pcKestrovaBin.assign(installation) || !pcKestrovaInstanceSuffix.format("-check-%d", getpid())) {
    std::fputs("KESTROVA_BIN must name the installation directory, with its final slash\n", stderr);
    return 1;
  }
  // A host without a network address of its own keeps the program from starting, whatever the file says.
  if (myConfiguration.readNetworkInformation())
    std::fputs("This host has no address to start with:\n", stderr);
  const bool valid = myConfiguration.readParams(words[0], false) == 0 && callsFit();
  if (!showAndRemoveLog() && !valid)
    std::fprintf(stderr, "no reason found: can %s../log be written?\n", installation);
  std::puts(valid ? "The file is valid." : "The file is not valid.");
  return valid ? 0 : 1;
}

int get(Words words) {
  static std::array<char, kMaxLineLength + 1> value;
  if (myConfiguration.ReadConfVal(words[0], words[1], value.data()) == nullptr) return 1;
  std::puts(value.data());
  return 0;
}

int set(Words words) {
  if (findKey(words[1]) < 0) {
    std::fprintf(stderr, "%s is no key of the configuration\n", words[1]);
    return 1;
  }
  if (myConfiguration.saveParamValue(words[0], words[1], words.size() == 3 ? words[2] : nullptr) == 0)
    return 0;
  std::fprintf(stderr,
               "%s cannot be changed: a new file in its directory, with its owner, is needed for that\n",
               words[0]);
  return 1;
}

struct sCommand {
  std::string_view name;
  std::size_t iFewestWords;
  std::size_t iMostWords;
  int (*pfRun)(Words words);
};

constexpr sCommand kCommands[] = {
    {"--sample", 0, 0, [](Words) { return printSample(), 0; }},
    {"--manual", 0, 0, [](Words) { return printManual(), 0; }},
    {"--check", 1, 1, check},
    {"--get", 2, 2, get},
    {"--set", 2, 3, set},
};

}  // namespace

int main(int count, char** arguments) {
  const Words all(arguments, static_cast<std::size_t>(count));
  for (const sCommand& command : kCommands) {
    if (all.size() < 2 || command.name != all[1]) continue;
    const Words words = all.subspan(2);
    if (words.size() < command.iFewestWords || words.size() > command.iMostWords) break;
    const int status = command.pfRun(words);
    return std::fflush(stdout) == 0 ? status : 1;
  }
  std::fputs(kUsage, stderr);
  return 1;
}
