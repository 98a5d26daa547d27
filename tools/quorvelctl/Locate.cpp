// Which files belong to an instance that was not fully described: those its process was started with, or
// those of the package.
#include <algorithm>
#include <cstdio>
#include <filesystem>

#include "app/config/InstanceFile.h"
#include "tools/quorvelctl/Context.h"

namespace {

namespace fs = std::filesystem;

std::string directoryOf(pid_t process) {
  return "/proc/" + std::to_string(process);
}

// Texts that each end with a NUL.
std::vector<std::string> textsIn(const std::string& block) {
  std::vector<std::string> texts;
  for (std::size_t at = 0; at < block.size(); at += texts.back().size() + 1)
    texts.emplace_back(block.c_str() + at);
  return texts;
}

// KESTROVA_BIN of the process; empty when it is not ours to look at.
std::string installationOf(pid_t process) {
  constexpr std::string_view kName = "KESTROVA_BIN=";
  for (const std::string& variable : textsIn(readFile(directoryOf(process) + "/environ").value_or("")))
    if (variable.starts_with(kName)) return variable.substr(kName.size());
  return "";
}

// The file of its command line; empty when it took its default, or when that is relative to a directory that
// is not ours to look at.
std::string configurationOf(pid_t process) {
  const auto words = textsIn(readFile(directoryOf(process) + "/cmdline").value_or(""));
  if (words.size() < 2 || words[1].empty() || words[1].front() == '/')
    return words.size() < 2 ? "" : words[1];
  std::error_code denied;
  const fs::path place = fs::read_symlink(directoryOf(process) + "/cwd", denied);
  return denied ? "" : (place / words[1]).string();
}

// There, or in a directory that hides what it holds.
bool mayBeThere(const std::string& path) {
  std::error_code error;
  return fs::exists(path, error) || error == std::errc::permission_denied;
}

std::string defaultConfiguration(const sContext& context) {
  const std::string packaged = QUORVEL_CONFIGURATIONS + context.instance + ".conf";
  const bool isPackaged = context.installation == QUORVEL_INSTALLATION && !context.instance.empty();
  return isPackaged && mayBeThere(packaged) ? packaged : context.installation + "quorvel.conf";
}

}  // namespace

bool locate(sContext& context) {
  if (!adoptContext(context)) return false;
  const auto process = findProcess(context);
  const std::string used = process ? installationOf(*process) : "";
  if (!context.bInstallationGiven) {
    if (!used.empty()) context.installation = used;
    if (context.installation.empty() && mayBeThere(QUORVEL_INSTALLATION))
      context.installation = QUORVEL_INSTALLATION;
  }
  if (!context.installation.ends_with('/')) return false;
  if (std::error_code error; !used.empty() && !fs::equivalent(used, context.installation, error))
    std::fprintf(stderr, "warning: KESTROVA_BIN is %s here, but %s for the process: its log is there\n",
                 context.installation.c_str(), used.c_str());
  if (!context.bConfigurationGiven) {
    context.configuration = process ? configurationOf(*process) : "";
    if (context.configuration.empty()) context.configuration = defaultConfiguration(context);
  }
  return adoptContext(context);
}

std::vector<std::string> namesOfInstances() {
  const fs::path lock = kLockFile;
  const std::string calls = fs::path(kActiveCallsFile).filename().string();
  std::vector<std::string> names;
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(lock.parent_path(), ignored)) {
    const std::string name = entry.path().filename().string();
    if (!name.starts_with(lock.filename().string()) || name.starts_with(calls)) continue;
    names.push_back(name.substr(lock.filename().string().size()));
  }
  std::sort(names.begin(), names.end());
  return names;
}
