// Does anybody answer SIP on a port of 127.0.0.1?
#pragma once

#include "tests/calls/support/Process.h"

// Asks with OPTIONS until an answer comes, the time is over or the process has ended.
bool answersSip(Process& process, int port, Seconds limit);
