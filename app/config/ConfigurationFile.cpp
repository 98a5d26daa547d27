#include <array>
#include <cerrno>

#include "app/config/Guarded.h"
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
  if (errno == EFBIG)
    Log::error(kReadParams, "conf-file %s has more than %zu bytes or %zu lines\n", path, kMaxTextBytes,
               kMaxTextLines);
  else
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
  return guarded(kReadParams, kFailure, [&] {
    return readLines(path, reload) && applyDefaults() ? analyzeCommandKeys() : kFailure;
  });
}
