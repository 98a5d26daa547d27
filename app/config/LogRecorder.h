// Lets a tool that uses the program's own code take the log records instead of having them written to the
// log.
#pragma once

#include "app/config/Log.h"

// Called in place of writing, with the whole message. Set it before the first record; null: records are
// written.
inline void (*pLogRecorder)(Log::Level level, const char* function, const char* message) = nullptr;
