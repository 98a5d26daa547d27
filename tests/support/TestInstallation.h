// An installation directory of a test's own, with bin/ and log/, that disappears with the test. While it
// lives, Glob::pcKestrovaBin points into it, so the log and every relative path go there.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

class TestInstallation {
 public:
  TestInstallation();
  ~TestInstallation();
  TestInstallation(const TestInstallation&) = delete;
  TestInstallation& operator=(const TestInstallation&) = delete;

  std::filesystem::path root() const { return directory; }
  std::filesystem::path bin() const { return directory / "bin"; }

  // Writes a file below bin/ and returns its full path.
  std::string write(const std::string& name, std::string_view content) const;
  static std::string read(const std::filesystem::path& path);

  // The whole log so far; how often a text occurs in it; start afresh.
  std::string log() const;
  int logCount(std::string_view text) const;
  void clearLog() const;

 private:
  std::filesystem::path directory;
};
