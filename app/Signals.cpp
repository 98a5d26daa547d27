#include "app/Signals.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <unistd.h>

#include "app/config/InstanceFile.h"
#include "app/config/Log.h"
#include "app/config/MyConfiguration.h"
#include "app/config/ProcessState.h"
#include "common/FaultStack.h"
#include "sip/MySip.h"

namespace {

using Level = Log::Level;

constexpr std::array kIgnoredSignals = {SIGHUP, SIGQUIT, SIGABRT, SIGPIPE, SIGALRM, SIGTERM, SIGSYS};
constexpr std::array kFaultSignals = {SIGILL, SIGTRAP, SIGFPE};

// The interrupted code must find errno as it left it.
class ErrnoKeeper {
 public:
  ErrnoKeeper() = default;
  ErrnoKeeper(const ErrnoKeeper&) = delete;
  ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;
  ~ErrnoKeeper() { errno = iKept; }

 private:
  int iKept = errno;
};

void logSignal(Level level, const char* handler, int number) {
  Log::fromSignalHandler(level, handler, "got signal ", number, "\n");
}

void sigIntHandle(int number) {
  const ErrnoKeeper keeper;
  logSignal(Level::eInfo, "sigIntHandle", number);
  if (!bDuringShutdown && myConfiguration.allowShutdown()) myConfiguration.startShutdown();
}

void logFileFailure(const char* before, const InstancePath& path, const char* after) {
  FixedText<400> message;
  (void)message.assign(before);
  (void)message.append(path);
  (void)message.append(after);
  Log::fromSignalHandler(Level::eError, "sigUsr1Handle", message.c_str());
}

void sigUsr1Handle(int) {
  const ErrnoKeeper keeper;
  const InstancePath path = instancePath(kActiveCallsFile);
  switch (writeInstanceFile(path, mySip.numActiveCalls())) {
    case InstanceFileResult::eWritten:
      break;
    case InstanceFileResult::eNotOpened:
      logFileFailure("Unable to open ", path, " for writing\n");
      break;
    case InstanceFileResult::eNotWritten:
      logFileFailure("Unable to write to ", path, "\n");
      break;
  }
}

void sigUsr2Handle(int) {
  const ErrnoKeeper keeper;
  bGotShutdownRequest = true;
  Log::fromSignalHandler(Level::eInfo, "sigUsr2Handle", "Got shutdown request\n");
}

void SigSegvHandle(int number) {
  logSignal(Level::eError, "SigSegvHandle", number);
  _exit(1);
}

void sigIgnoreHandle(int number) {
  const ErrnoKeeper keeper;
  logSignal(Level::eError, "sigIgnoreHandle", number);
}

// Signals that a process sends have a code of at most 0; the kernel's own are positive.
void faultOrIgnoreHandle(int number, siginfo_t* information, void*) {
  sigIgnoreHandle(number);
  if (information->si_code > 0) _exit(1);
}

struct sigaction onFaultStack(int flags) {
  struct sigaction action {};
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_ONSTACK | SA_RESTART | flags;
  return action;
}

}  // namespace

void ignoreFileSizeSignal() {
  signal(SIGXFSZ, SIG_IGN);
}

void installSignalHandlers() {
  signal(SIGINT, sigIntHandle);
  signal(SIGUSR1, sigUsr1Handle);
  signal(SIGUSR2, sigUsr2Handle);
  for (const int number : kIgnoredSignals) signal(number, sigIgnoreHandle);

  static const FaultStack mainThreadStack;
  struct sigaction segmentation = onFaultStack(0);
  segmentation.sa_handler = SigSegvHandle;
  sigaction(SIGSEGV, &segmentation, nullptr);
  struct sigaction fault = onFaultStack(SA_SIGINFO);
  fault.sa_sigaction = faultOrIgnoreHandle;
  for (const int number : kFaultSignals) sigaction(number, &fault, nullptr);
}
