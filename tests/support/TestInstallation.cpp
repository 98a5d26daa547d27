#include "tests/support/TestInstallation.h"

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "app/config/ProcessState.h"
#include "engine/Glob.h"

TestInstallation::TestInstallation() {
  std::string pattern = (std::filesystem::temp_directory_path() / "quorvel-test-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no temporary directory");
  directory = pattern;
  std::filesystem::create_directory(bin());
  std::filesystem::create_directory(directory / "log");
  if (!Glob::pcKestrovaBin.assign(bin().string() + "/")) throw std::runtime_error("temporary path too long");
  pcKestrovaInstanceSuffix.clear();
}

TestInstallation::~TestInstallation() {
  Glob::pcKestrovaBin.clear();
  std::error_code ignored;
  std::filesystem::remove_all(directory, ignored);
}

std::string TestInstallation::write(const std::string& name, std::string_view content) const {
  const std::filesystem::path path = bin() / name;
  std::ofstream(path, std::ios::binary) << content;
  return path.string();
}

std::string TestInstallation::read(const std::filesystem::path& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

std::string TestInstallation::log() const {
  return read(directory / "log" / ("errLog" + std::string(pcKestrovaInstanceSuffix.view())));
}

int TestInstallation::logCount(std::string_view text) const {
  const std::string all = log();
  int count = 0;
  for (std::size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + text.size()))
    ++count;
  return count;
}

void TestInstallation::clearLog() const {
  std::error_code ignored;
  std::filesystem::remove(directory / "log" / ("errLog" + std::string(pcKestrovaInstanceSuffix.view())),
                          ignored);
}
