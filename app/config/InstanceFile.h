// The two files in /tmp that tell other programs about this instance. Each holds one 32-bit integer in the
// host's byte order. Everything here may be called from signal handlers.
#pragma once

#include <cstdint>

#include "common/FixedText.h"

inline constexpr const char* kLockFile = "/tmp/KestrovaQuorvel";
inline constexpr const char* kActiveCallsFile = "/tmp/KestrovaQuorvelNumActiveCalls";

using InstancePath = FixedText<300>;  // holds either name and the longest instance suffix

// The file's name with the suffix of this instance.
InstancePath instancePath(const char* name);

enum class InstanceFileResult { eWritten, eNotOpened, eNotWritten };

// Creates or truncates the file and writes the value. Anyone may put something else into /tmp: a symbolic
// link is not followed, and only an ordinary file is written.
[[nodiscard]] InstanceFileResult writeInstanceFile(const InstancePath& path, std::int32_t value);
