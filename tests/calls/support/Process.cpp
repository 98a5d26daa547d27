#include "tests/calls/support/Process.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/calls/support/ScratchDirectory.h"

namespace {

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

// The own environment without the names that the new process gets a value of its own for.
std::vector<std::string> environmentWith(const Process::Environment& additions) {
  std::vector<std::string> result;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    if (!additions.contains(text.substr(0, text.find('=')))) result.push_back(text);
  }
  for (const auto& [name, value] : additions) result.push_back(name + "=" + value);
  return result;
}

// Between fork and exec only calls that are safe in a signal handler.
[[noreturn]] void becomeProgram(const char* path, char** arguments, char** environment, const char* output) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  setpgid(0, 0);
  const int in = open("/dev/null", O_RDONLY);
  const int out = open(output, O_WRONLY | O_CREAT | O_APPEND, 0644);
  if (in < 0 || out < 0 || dup2(in, 0) < 0 || dup2(out, 1) < 0 || dup2(out, 2) < 0) _exit(127);
  execve(path, arguments, environment);
  _exit(127);
}

}  // namespace

Process::Process(const std::string& program, const std::vector<std::string>& arguments,
                 const std::filesystem::path& outputFile, const Environment& environment)
    : outputPath(outputFile) {
  const std::string path = program.find('/') == std::string::npos ? find(program) : program;
  std::vector<std::string> words{program};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<std::string> variables = environmentWith(environment);
  const std::vector<char*> argumentList = pointersTo(words);
  const std::vector<char*> variableList = pointersTo(variables);
  const std::string output = outputFile.string();
  id = fork();
  if (id < 0) throw std::runtime_error("cannot fork");
  if (id == 0) {
    becomeProgram(path.c_str(), const_cast<char**>(argumentList.data()),
                  const_cast<char**>(variableList.data()), output.c_str());
  }
}

std::optional<int> Process::wait(Seconds limit) {
  const auto ended = [this] {
    if (status.has_value()) return true;
    int raw = 0;
    if (waitpid(id, &raw, WNOHANG) != id) return false;
    status = WIFSIGNALED(raw) ? 128 + WTERMSIG(raw) : WEXITSTATUS(raw);
    return true;
  };
  eventually(ended, limit);
  return status;
}

void Process::signal(int number) const {
  if (!status.has_value()) ::kill(id, number);
}

void Process::kill() {
  signal(SIGKILL);
  if (!status.has_value()) ::kill(-id, SIGKILL);  // and what it has started, which would keep its ports
  wait(Seconds(5));
}

std::string Process::output() const {
  return readFile(outputPath);
}

int Process::outputCount(std::string_view text) const {
  return occurrences(output(), text);
}

long Process::residentKilobytes() const {
  std::ifstream file("/proc/" + std::to_string(id) + "/status");
  std::string word;
  long kilobytes = 0;
  while (file >> word) {
    if (word == "VmRSS:" && file >> kilobytes) return kilobytes;
  }
  return 0;
}

std::string Process::find(const std::string& program) {
  const char* own = std::getenv("PATH");
  std::istringstream folders(std::string(own != nullptr ? own : "") + ":/usr/local/sbin:/usr/sbin:/sbin");
  for (std::string folder; std::getline(folders, folder, ':');) {
    const std::string candidate = folder + "/" + program;
    if (!folder.empty() && access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return "";
}

bool Process::run(const std::string& program, const std::vector<std::string>& arguments,
                  const std::filesystem::path& outputFile, Seconds limit) {
  Process process(program, arguments, outputFile);
  return process.wait(limit) == 0;
}
