// Lines at the engine's parameter console: each "NAME VALUE" is set and printed, and all of them are read as
// a terminal gives them. Whatever was set, a channel can be initialised and works.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include "common/Handle.h"
#include "engine/Cli.h"
#include "engine/Kestrova.h"
#include "fuzz/EnginePackage.h"
#include "fuzz/Require.h"

namespace {

void startChannel() {
  sKestrovaInit init{};
  init.sBitsPerSample = 16;
  init.iSampleRate = 8000;
  init.sFrameUnits = 8;
  init.sMaxNumCyclesInDelayBuffer = 20;
  init.sDetectAggressiveLevel = 2;
  init.sCleanAggressiveLevel = 8;
  require(KestrovaIpsavoxInit(0, &init) == 0);
}

bool prepare() {
  stdout = std::fopen("/dev/null", "w");  // prompts
  if (!prepareEngine() || stdout == nullptr) return false;
  startChannel();
  return true;
}

void processFrame() {
  std::array<std::int16_t, 256> samples{};
  sKestrovaFrameResult result{};
  require(KestrovaProcessFrame(0, samples.data(), sizeof samples, samples.data(), &result) == 0);
}

void setAndPrint(std::string_view line) {
  const std::size_t blank = line.find(' ');
  const std::string name(line.substr(0, blank));
  if (blank != std::string_view::npos) KestrovaCli.setParam(name, line.substr(blank + 1));
  std::array<char, 1024> printed{};
  const File memory(fmemopen(printed.data(), printed.size(), "w"));
  require(memory != nullptr);
  KestrovaCli.printParam(memory.get(), std::string(line).c_str());
  KestrovaCli.printObject(memory.get(), name);
}

void readAsTerminal(const std::uint8_t* data, std::size_t size) {
  // The console only reads.
  const File input(fmemopen(const_cast<std::uint8_t*>(data), size, "r"));
  require(input != nullptr);
  std::FILE* const terminal = stdin;
  stdin = input.get();
  require(KestrovaCli.run(nullptr, nullptr) == 0);
  stdin = terminal;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool prepared = prepare();
  require(prepared);
  if (size == 0) return 0;
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  const bool worksAfterwards = rest.starts_with('\n');
  while (!rest.empty()) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(rest.size(), line.size() + 1));
    setAndPrint(line);
  }
  readAsTerminal(data, size);
  if (!worksAfterwards) return 0;
  require(KestrovaTerminate(0) == 0);
  startChannel();
  processFrame();
  return 0;
}
