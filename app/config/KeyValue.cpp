#include "app/config/KeyValue.h"

#include <algorithm>
#include <array>

#include "app/config/Log.h"
#include "app/config/MyConfiguration.h"
#include "app/config/Scan.h"
#include "app/config/TextFile.h"
#include "engine/Glob.h"

namespace {

std::string_view withoutLeadingBlanks(std::string_view text) {
  return text.substr(std::min(text.find_first_not_of(' '), text.size()));
}

using Kind = sKeyCheck::Kind;

// ---- Integers ----

void logOutOfRange(const sKey& key) {
  Log::error(kReadParams, "value of %s is not between %d to %d\n", key.pcName, key.sCheck.iLow,
             key.sCheck.iHigh);
}

bool checkEvenCount(const sKey& key, int value) {
  if (value % 2 != 0)
    Log::error(kReadParams, "value of %s is not even\n", key.pcName);
  else if (value < key.sCheck.iLow)
    Log::error(kReadParams, "value of %s is not positive\n", key.pcName);
  else if (value > key.sCheck.iHigh)
    Log::error(kReadParams, "value of %s is more than %d\n", key.pcName, key.sCheck.iHigh);
  else
    return true;
  return false;
}

// Puts the value right where the key wants that. False, and logged, when it is not acceptable.
bool checkInteger(const sKey& key, int& value) {
  const bool inRange = value >= key.sCheck.iLow && value <= key.sCheck.iHigh;
  switch (key.sCheck.kind) {
    case Kind::eSupported:
      if (!inRange) Log::error(kReadParams, "value of %s is not supported\n", key.pcName);
      return inRange;
    case Kind::eFlag:
      if (!inRange) Log::error(kReadParams, "value of %s is not 0 or 1\n", key.pcName);
      return inRange;
    case Kind::eRange:
      if (!inRange) logOutOfRange(key);
      return inRange;
    case Kind::ePositive:
      if (!inRange) Log::error(kReadParams, "value of %s is not positive\n", key.pcName);
      return inRange;
    case Kind::eEvenCount:
      return checkEvenCount(key, value);
    case Kind::eRaised:
      value = std::max(value, key.sCheck.iLow);
      return true;
    default:
      return true;
  }
}

// A text that is no number leaves the setting as it is; that value is checked all the same.
template <typename Setting>
KeyOutcome storeInteger(const sKey& key, Setting& setting, std::string_view text) {
  int value = scanInteger(text).value_or(setting);
  if (!checkInteger(key, value)) return KeyOutcome::eRefused;
  setting = value;
  return KeyOutcome::eStored;
}

// ---- Texts ----

constexpr std::array<std::string_view, 4> kAecAlgorithms = {"basic", "advanced", "advanced-4", "advanced-7"};

KeyOutcome assignText(const sKey& key, const TextTarget& setting, std::string_view value) {
  if (setting.assign(value)) return KeyOutcome::eStored;
  Log::error(kReadParams, "value of %s is too long\n", key.pcName);
  return KeyOutcome::eRefused;
}

KeyOutcome storeWord(const sKey& key, const TextTarget& setting, std::string_view word) {
  if (key.sCheck.kind == Kind::eAecAlgorithm && std::ranges::count(kAecAlgorithms, word) == 0) {
    Log::error(kReadParams, "value of %s must be either basic or advanced or advanced-4 or advanced-7\n",
               key.pcName);
    return KeyOutcome::eRefused;
  }
  return assignText(key, setting, word);
}

KeyOutcome storeListWord(const sKey& key, const TextTarget& setting, std::string_view word) {
  static FixedText<kMaxLineLength + 2> list;  // main thread only, and large for a stack
  list.assignCut(word);
  if (!word.ends_with(';')) (void)list.append(";");
  return assignText(key, setting, list);
}

KeyOutcome storePath(const sKey& key, const TextTarget& setting, std::string_view word) {
  SettingPath path;
  if (!path.assign(Glob::pcKestrovaBin) || !path.append(word)) {
    Log::error(kReadParams, "value of %s is too long\n", key.pcName);
    return KeyOutcome::eRefused;
  }
  const KeyOutcome outcome = assignText(key, setting, path);
  if (outcome != KeyOutcome::eStored || key.sCheck.kind != Kind::eRoutingFile) return outcome;
  if (myConfiguration.readSipRoutingFile(path.c_str()) == 0) return KeyOutcome::eStored;
  Log::error(kReadParams, "Invalid sip routing file %s\n", path.c_str());
  return KeyOutcome::eRefused;
}

KeyOutcome storeAddress(const sKey& key, const TextTarget& setting, std::string_view word) {
  FixedText<16> dotted;
  if (!myConfiguration.validateAndGetDottedIPAddress(word, dotted)) return assignText(key, setting, dotted);
  Log::error(kReadParams, "value of %s can not be traslated to valid IP\n", key.pcName);
  return KeyOutcome::eRefused;
}

KeyOutcome storeText(const sKey& key, const TextTarget& setting, std::string_view value) {
  const std::string_view word = scanWord(value);
  if (word.empty()) return KeyOutcome::eNotGiven;
  switch (key.type) {
    case KeyType::eListWord:
      return storeListWord(key, setting, word);
    case KeyType::ePath:
      return storePath(key, setting, word);
    case KeyType::eAddress:
      return storeAddress(key, setting, word);
    default:
      return storeWord(key, setting, word);
  }
}

// ---- Expressions ----

KeyOutcome storeExpressions(const sKey& key, const sExpressionTarget& setting, std::string_view value) {
  *setting.piCount = 0;
  value = value.substr(0, value.find_last_not_of("\r\n") + 1);
  if (value.ends_with(';')) value.remove_suffix(1);
  for (bool more = true; more;) {
    const std::size_t end = value.find(';');
    const std::string_view expression = value.substr(0, end);
    if (*setting.piCount == kMaxExpressions) {
      Log::error(kReadParams, "value of %s contains more than %d expressions\n", key.pcName, kMaxExpressions);
      return KeyOutcome::eRefused;
    }
    if (!(*setting.psList)[static_cast<std::size_t>(*setting.piCount)].assign(expression)) {
      Log::error(kReadParams, "value of %s contains an expression with size greater than %d\n", key.pcName,
                 kExpressionCapacity);
      return KeyOutcome::eRefused;
    }
    ++*setting.piCount;
    more = end != std::string_view::npos;
    if (more) value.remove_prefix(end + 1);
  }
  return KeyOutcome::eStored;
}

// ---- Dispatch on the kind of setting ----

struct Store {
  const sKey& key;
  std::string_view value;

  KeyOutcome operator()(int* setting) const { return storeInteger(key, *setting, value); }
  KeyOutcome operator()(Relaxed<int>* setting) const { return storeInteger(key, *setting, value); }
  KeyOutcome operator()(Relaxed<float>* setting) const {
    *setting = scanFloat(value).value_or(*setting);
    return KeyOutcome::eStored;
  }
  KeyOutcome operator()(const TextTarget& setting) const { return storeText(key, setting, value); }
  KeyOutcome operator()(const sExpressionTarget& setting) const {
    return storeExpressions(key, setting, value);
  }
};

void clearValue(const sKey& key) {
  if (const auto* text = std::get_if<TextTarget>(&key.target)) (void)text->assign({});
  if (const auto* expressions = std::get_if<sExpressionTarget>(&key.target)) *expressions->piCount = 0;
  if (key.sCheck.kind == Kind::eRoutingFile) iNumSipRoutingRecords = 0;
}

}  // namespace

sAssignment readAssignment(std::string_view line) {
  line = withoutLeadingBlanks(line);
  const std::size_t equals = line.find('=');
  if (line.starts_with(';') || equals == std::string_view::npos) return {};
  const std::string_view key = line.substr(0, equals);
  const std::string_view value = withoutLeadingBlanks(line.substr(equals + 1));
  if (value.starts_with('\r') || value.starts_with('\n')) return {};
  return {key.substr(0, key.find_last_not_of(' ') + 1), value};
}

KeyOutcome storeKeyValue(const sKey& key, std::string_view value) {
  return std::visit(Store{key, value}, key.target);
}

bool storeKeyDefault(const sKey& key) {
  switch (key.sDefault.kind) {
    case sKeyDefault::Kind::eRequired:
      Log::error(kReadParams, "no value given in conf-file for: %s\n", key.pcName);
      return false;
    case sKeyDefault::Kind::eComputed:
      key.sDefault.pfCompute();
      return true;
    case sKeyDefault::Kind::eText:
      break;
  }
  if (*key.sDefault.pcText != '\0') return storeKeyValue(key, key.sDefault.pcText) == KeyOutcome::eStored;
  clearValue(key);
  return true;
}
