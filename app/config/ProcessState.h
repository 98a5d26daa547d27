// What the whole process shares beside its settings: the instance's name, the host's own address and the
// shutdown flags. Written by start-up and by the signal handlers, read by the main loop once per pass.
#pragma once

#include <ctime>

#include "common/FixedText.h"
#include "common/Relaxed.h"

// Instance name from the command line; appended to the name of every log, lock and status file.
inline FixedText<256> pcKestrovaInstanceSuffix;

// First usable IPv4 address of the host's own interfaces, dotted; empty until detected.
inline FixedText<16> pcMyIPAsDetectedInternally;

// A controlled shutdown is in progress.
inline Relaxed<bool> bDuringShutdown;
// The main loop has still to start the shutdown actions of the SIP engine.
inline Relaxed<bool> bNeedToInitiateShutdown;
// When the shutdown was accepted, in steady time, as the next one. Written before the two flags above.
inline Relaxed<std::time_t> sTimeStartShutDown;
// Drain mode: new calls are refused, running calls go on.
inline Relaxed<bool> bGotShutdownRequest;
// When the last interrupt signal was refused (at first: start-up). A second one within 5 s forces the
// shutdown.
inline Relaxed<std::time_t> lastSignal;
