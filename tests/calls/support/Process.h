// A program run beside the test: started with its output in a file, waited for with a time limit, and killed
// with the object (or with the test process, should that die first).
#pragma once

#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <thread>
#include <vector>

using Seconds = std::chrono::duration<double>;

class Process {
 public:
  using Environment = std::map<std::string, std::string>;

  // Standard output and standard error go to `outputFile`, standard input is empty. `environment` is added to
  // the own one. Throws std::runtime_error when no process can be made; a program that is not there ends with
  // status 127.
  Process(const std::string& program, const std::vector<std::string>& arguments,
          const std::filesystem::path& outputFile, const Environment& environment = {});
  ~Process() { kill(); }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  // The exit status, 128 + signal for a process that a signal ended, nothing while it runs after that time.
  std::optional<int> wait(Seconds limit);
  bool running() { return !wait(Seconds(0)).has_value(); }
  void signal(int number) const;
  void kill();  // returns when it is gone

  pid_t pid() const { return id; }
  std::string output() const;
  int outputCount(std::string_view text) const;  // how often the text occurs in it
  long residentKilobytes() const;                // 0 when it is gone

  // The first of PATH and the system's administration folders that holds the program; empty when none does.
  static std::string find(const std::string& program);
  // Runs a program to its end; true for exit status 0.
  static bool run(const std::string& program, const std::vector<std::string>& arguments,
                  const std::filesystem::path& outputFile, Seconds limit = Seconds(30));

 private:
  pid_t id = -1;
  std::optional<int> status;
  std::filesystem::path outputPath;
};

// Asks every few milliseconds until the condition holds or the time is over.
template <typename Condition>
bool eventually(Condition condition, Seconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}
