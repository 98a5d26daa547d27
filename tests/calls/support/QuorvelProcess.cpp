#include "tests/calls/support/QuorvelProcess.h"

#include <array>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/calls/support/ScratchDirectory.h"
#include "tests/calls/support/SipProbe.h"
#include "tests/support/LoopbackPeer.h"

namespace {

constexpr std::array kStatusFiles = {"/tmp/KestrovaQuorvel", "/tmp/KestrovaQuorvelNumActiveCalls",
                                     "/tmp/KestrovaTmpLog"};

// Lock and status files carry the instance name, so no two instances on a machine may share one.
std::string uniqueInstance() {
  static int started = 0;
  return "-call-" + std::to_string(getpid()) + "-" + std::to_string(++started);
}

}  // namespace

// QUORVEL_PROGRAM in the environment names another build, for instance one with sanitizers.
std::string QuorvelProcess::program() {
  const char* const other = std::getenv("QUORVEL_PROGRAM");
  return other != nullptr ? other : QUORVEL_PROGRAM;
}

bool QuorvelProcess::isSanitized() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  return true;
#else
  return program() != QUORVEL_PROGRAM;
#endif
}

Settings QuorvelProcess::workingConfiguration(const PortBlock& ports) {
  return {{"ConfigVersion", "2"},
          {"IPVersion", "4"},
          {"SipProxyIP", "127.0.0.1"},
          {"SipProxyPort", std::to_string(ports.pbx())},
          {"SipProxyDomain", "127.0.0.1"},
          {"SipUAIP", "127.0.0.1"},
          {"SipUAPort", std::to_string(ports.sip())},
          {"RtpUAPortInitVal", std::to_string(ports.relay())},
          {"Separator", "##"},
          {"DefaultCmd", "*##0"},
          {"NumPhonesToAllocate", "8"},
          {"NumCallsToFilter", "4"},
          {"SipDebug", "1"},
          {"RegisterOrigPhones", "0"},
          {"RegisterPairPhones", "0"},
          {"NeedToCheckDTMF", "0"},
          {"CPUPower", "5"},
          {"DetectAggressiveLevel", "2"},
          {"CleanAggressiveLevel", "8"},
          {"AECAlgorithm", "basic"}};
}

QuorvelProcess::QuorvelProcess(const std::filesystem::path& directory, const PortBlock& ports,
                               const Settings& overrides, const std::string& instance)
    : home(directory), portBlock(ports), suffix(instance.empty() ? uniqueInstance() : instance) {
  std::filesystem::create_directories(bin());
  std::filesystem::create_directories(home / "log");
  writeConfiguration(overrides);
  running =
      std::make_unique<Process>(program(), std::vector{configuration().string(), suffix}, home / "output",
                                Process::Environment{{"KESTROVA_BIN", bin().string() + "/"}});
}

QuorvelProcess::~QuorvelProcess() {
  running->kill();
  const std::string output = running->output();
  for (const char* report : {"Sanitizer", "runtime error:"}) {
    if (output.find(report) != std::string::npos) ADD_FAILURE() << output;
  }
  for (const char* name : kStatusFiles) unlink((name + suffix).c_str());
}

void QuorvelProcess::writeConfiguration(const Settings& overrides) const {
  Settings settings = workingConfiguration(portBlock);
  for (const auto& [key, value] : overrides) settings[key] = value;
  std::string text = "; written by the test that runs this instance\n";
  for (const auto& [key, value] : settings) {
    if (!value.empty()) text += key + "=" + value + "\n";
  }
  writeFile(configuration(), text);
}

bool QuorvelProcess::ready(Seconds limit) {
  return answersSip(*running, portBlock.sip(), limit);
}

std::optional<int> QuorvelProcess::stop(Seconds limit) {
  running->signal(SIGINT);
  std::optional<int> status = running->wait(Seconds(3));
  if (status.has_value()) return status;
  running->signal(SIGINT);
  return running->wait(limit);
}

void QuorvelProcess::sendDatagram(std::string_view datagram) const {
  LoopbackPeer().sendTo(portBlock.sip(), datagram);
}

void QuorvelProcess::sendReload(const std::filesystem::path& file) const {
  sendDatagram("800-QUORVEL-RELOAD " + file.string() + "\r\n");
}

std::string QuorvelProcess::log() const {
  return readFile(home / "log" / ("errLog" + suffix));
}

int QuorvelProcess::logCount(std::string_view text) const {
  return occurrences(log(), text);
}

bool QuorvelProcess::logged(std::string_view text, Seconds limit) const {
  return eventually([&] { return logCount(text) > 0; }, limit);
}

int QuorvelProcess::activeCalls() const {
  const std::string path = "/tmp/KestrovaQuorvelNumActiveCalls" + suffix;
  unlink(path.c_str());
  running->signal(SIGUSR1);
  std::int32_t count = -1;
  eventually([&] { return std::filesystem::exists(path) && readFile(path).size() == sizeof count; },
             Seconds(3));
  const std::string content = readFile(path);
  if (content.size() == sizeof count) std::memcpy(&count, content.data(), sizeof count);
  return count;
}
