// Storing the value of one key: taken from the text as the key's type says, checked, then stored. Failures
// are logged in the name of MyConfiguration::readParams.
#pragma once

#include <string_view>

#include "app/config/KeyRegistry.h"

inline constexpr const char* kReadParams = "MyConfiguration::readParams";

enum class KeyOutcome {
  eStored,
  eNotGiven,  // the text holds nothing that the key could take
  eRefused    // logged; the setting keeps its value
};

// `value` is the rest of the line after "=" and blanks, line end included.
[[nodiscard]] KeyOutcome storeKeyValue(const sKey& key, std::string_view value);

// Stores the default of a key that the file does not give. False, and logged, for a required key.
[[nodiscard]] bool storeKeyDefault(const sKey& key);
