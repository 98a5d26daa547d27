#include <algorithm>
#include <array>
#include <cerrno>

#include "app/config/KeyRegistry.h"
#include "app/config/KeyValue.h"
#include "app/config/Log.h"
#include "app/config/MyConfiguration.h"
#include "app/config/TextFile.h"

namespace {

// Which keys the current pass, or for keys that a reload leaves alone the first one, has given a valid value.
std::array<bool, kNumKeys> bFound;

void forgetFoundKeys(bool reload) {
  const auto keys = keyRegistry();
  for (std::size_t i = 0; i < keys.size(); ++i)
    if (!reload || keys[i].bReloadable) bFound[i] = false;
}

std::string_view withoutLeadingBlanks(std::string_view text) {
  return text.substr(std::min(text.find_first_not_of(' '), text.size()));
}

struct sAssignment {
  std::string_view key;
  std::string_view value;  // to the end of the line; empty: nothing is assigned
};

// What a line assigns: nothing if it is a comment, has no "=" or no value.
sAssignment readAssignment(std::string_view line) {
  line = withoutLeadingBlanks(line);
  const std::size_t equals = line.find('=');
  if (line.starts_with(';') || equals == std::string_view::npos) return {};
  const std::string_view key = line.substr(0, equals);
  const std::string_view value = withoutLeadingBlanks(line.substr(equals + 1));
  if (value.starts_with('\r') || value.starts_with('\n')) return {};
  return {key.substr(0, key.find_last_not_of(' ') + 1), value};
}

// False when the line holds an invalid value.
bool readLine(std::string_view line, bool reload) {
  const sAssignment assignment = readAssignment(line);
  if (assignment.value.empty()) return true;
  const int index = findKey(assignment.key);
  if (index < 0) return true;
  const auto at = static_cast<std::size_t>(index);
  const sKey& key = keyRegistry()[at];
  if (reload && !key.bReloadable) return true;

  const KeyOutcome outcome = storeKeyValue(key, assignment.value);
  if (outcome == KeyOutcome::eStored) bFound[at] = true;
  return outcome != KeyOutcome::eRefused;
}

void logUnreadable(const char* path) {
  Log::error(kReadParams, "Unable to open conf-file (error=%d) %s\n", errno, path);
}

bool readLines(const char* path, bool reload) {
  const File file = openForReading(path);
  if (!file) {
    logUnreadable(path);
    return false;
  }
  forgetFoundKeys(reload);
  LineReader lines(file.get());
  while (lines.next())
    if (!readLine(lines.text(), reload)) return false;
  if (!lines.failed()) return true;
  logUnreadable(path);
  return false;
}

bool applyDefaults() {
  const auto keys = keyRegistry();
  for (std::size_t i = 0; i < keys.size(); ++i)
    if (!bFound[i] && !storeKeyDefault(keys[i])) return false;
  return true;
}

}  // namespace

int MyConfiguration::readParams(const char* path, bool reload) {
  constexpr int kFailure = 2;
  try {
    if (!readLines(path, reload) || !applyDefaults()) return kFailure;
    return analyzeCommandKeys();
  } catch (...) {
    Log::error(kReadParams, "exception caught");
    return kFailure;
  }
}
