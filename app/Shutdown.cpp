// May an interrupt stop the process now? Called from the SIGINT handler: flags, a count and handler log lines
// only.
#include <ctime>

#include "app/config/Log.h"
#include "app/config/MyConfiguration.h"
#include "app/config/ProcessState.h"
#include "common/Clock.h"
#include "sip/MySip.h"

namespace {

constexpr const char* kAllowShutdown = "MyConfiguration::allowShutdown";
// A second interrupt within this time is meant seriously.
constexpr double kForceSeconds = 5.0;

void logRefusal(int calls) {
  constexpr const char* kHint = " - to force shutdown press control-c again within 5 seconds\n";
  FixedText<100> message;
  (void)message.assign(calls == 1 ? " active call" : " active calls");
  (void)message.append(kHint);
  Log::fromSignalHandler(Log::Level::eWarning, kAllowShutdown, calls == 1 ? "There is " : "There are ", calls,
                         message.c_str());
}

}  // namespace

bool MyConfiguration::allowShutdown() {
  const std::time_t now = Clock::steadyTime().tv_sec;
  if (std::difftime(now, lastSignal) <= kForceSeconds) return true;
  const int calls = mySip.numActiveCalls();
  if (calls == 0) return true;
  logRefusal(calls);
  lastSignal = now;
  return false;
}

void MyConfiguration::startShutdown() {
  sTimeStartShutDown = Clock::steadyTime().tv_sec;
  bNeedToInitiateShutdown = true;
  bDuringShutdown = true;
}
