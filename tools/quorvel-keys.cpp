// The configuration file for people and scripts: prints what keys there are, reads and changes single keys.
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string>
#include <string_view>

#include "app/config/KeyRegistry.h"
#include "app/config/MyConfiguration.h"
#include "app/config/TextFile.h"
#include "tools/quorvel-keys-print.h"

namespace {

constexpr const char* kUsage =
    "quorvel-keys --sample                  print an annotated configuration file to start from\n"
    "quorvel-keys --manual                  print the manual's list of keys, in Markdown\n"
    "quorvel-keys --man                     print the manual page of the configuration file\n"
    "quorvel-keys --get FILE KEY            print the value that a file gives a key\n"
    "quorvel-keys --set FILE KEY [VALUE]    change a key in a file; without a value, comment it out\n";

using Words = std::span<char* const>;

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
    {"--man", 0, 0, [](Words) { return printManPage(), 0; }},
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
