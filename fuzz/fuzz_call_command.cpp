// A separator of up to 9 bytes, a line feed, and any bytes as a command.
#include <cstdint>
#include <cstdlib>

#include "app/config/MyConfiguration.h"
#include "engine/Glob.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const std::size_t end = text.find('\n');
  if (end == std::string_view::npos || !pcSeparator.assign(text.substr(0, end)) || pcSeparator.empty())
    return 0;
  (void)Glob::pcKestrovaBin.assign("/nowhere/bin/");

  const std::string_view command = text.substr(end + 1);
  RuleText destination;
  int type = -1;
  if (myConfiguration.analyzeCommand(command, destination, type) != 0) return 0;
  if (type < 0 || type > 3) std::abort();
  const std::string_view kept = destination.view();
  if (!command.starts_with(kept) || kept.find(pcSeparator.view()) != std::string_view::npos) std::abort();
  return 0;
}
