// The program from its first line to its last: finds the installation, brings the services up in their order
// and runs the SIP engine until it returns.
#pragma once

#include <span>

#include "common/FixedText.h"

inline constexpr int kExitDone = 0;
inline constexpr int kExitFailure = 1;  // start-up failed, or an exception came through
inline constexpr int kExitNoMediaRelay = 100;

using ConfigurationPath = FixedText<256>;

// What the command line and the environment say. Each is false when the program cannot start (logged, before
// the installation is known to the early log).

// The second of two arguments becomes the instance's name.
[[nodiscard]] bool takeInstanceName(std::span<char* const> arguments);
// KESTROVA_BIN, which must end with a slash or backslash, becomes the installation directory.
[[nodiscard]] bool findInstallation(const char* kestrovaBin);
// The first of one or two arguments, otherwise quorvel.conf in the installation directory.
[[nodiscard]] bool chooseConfiguration(std::span<char* const> arguments, ConfigurationPath& path);

// The whole program. `arguments` as main gets them, the program's name first. Returns the exit status.
int quorvelMain(std::span<char* const> arguments);
