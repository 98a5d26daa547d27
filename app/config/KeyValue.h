// Storing the value of one key: taken from the text as the key's type says, checked, then stored. Failures
// are logged in the name of MyConfiguration::readParams.
#pragma once

#include <string_view>

#include "app/config/KeyRegistry.h"

inline constexpr const char* kReadParams = "MyConfiguration::readParams";

struct sAssignment {
  std::string_view key;
  std::string_view value;  // to the end of the line; empty: nothing is assigned
};

// What a line of the file assigns: nothing if it is a comment, has no "=" or no value.
[[nodiscard]] sAssignment readAssignment(std::string_view line);

enum class KeyOutcome {
  eStored,
  eNotGiven,  // the text holds nothing that the key could take
  eRefused    // logged; the setting keeps its value
};

// `value` is the rest of the line after "=" and blanks, line end included.
[[nodiscard]] KeyOutcome storeKeyValue(const sKey& key, std::string_view value);

// Stores the default of a key that the file does not give. False, and logged, for a required key.
[[nodiscard]] bool storeKeyDefault(const sKey& key);
