// The program itself, started with a configuration and an installation directory of its own.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "tests/calls/support/PortBlock.h"
#include "tests/calls/support/Process.h"

// Configuration keys and values; an empty value leaves the key out.
using Settings = std::map<std::string, std::string>;

class QuorvelProcess {
 public:
  // Writes `overrides` over a configuration that works on loopback with the block's ports, and starts the
  // program below `directory`. The instance name is made unique unless one is given.
  QuorvelProcess(const std::filesystem::path& directory, const PortBlock& ports,
                 const Settings& overrides = {}, const std::string& instance = "");
  ~QuorvelProcess();

  static std::string program();  // path of the executable
  // May the executable have a sanitizer, which reserves and keeps memory as it likes?
  static bool isSanitized();
  static Settings workingConfiguration(const PortBlock& ports);

  // Answers SIP? Asked with OPTIONS until it does or the time is over.
  bool ready(Seconds limit = Seconds(15));
  // Interrupts it (twice where calls are up) and gives its exit status, or nothing when it does not end.
  std::optional<int> stop(Seconds limit = Seconds(10));
  void sendReload(const std::filesystem::path& configuration) const;
  void sendDatagram(std::string_view datagram) const;

  Process& process() { return *running; }
  std::string log() const;
  int logCount(std::string_view text) const;
  bool logged(std::string_view text, Seconds limit = Seconds(5)) const;
  // Asked by signal and read from the file that answers it; -1 without an answer.
  int activeCalls() const;

  // Relative paths in the configuration start at bin().
  std::filesystem::path bin() const { return home / "bin"; }
  std::filesystem::path configuration() const { return bin() / "quorvel.conf"; }
  void writeConfiguration(const Settings& overrides) const;
  const std::string& instanceName() const { return suffix; }

 private:
  std::filesystem::path home;
  const PortBlock& portBlock;
  std::string suffix;
  std::unique_ptr<Process> running;
};
