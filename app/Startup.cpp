#include "app/Startup.h"

#include <cstdlib>
#include <string_view>
#include <unistd.h>

#include "app/config/Log.h"
#include "app/config/MyConfiguration.h"
#include "app/config/ProcessState.h"
#include "app/Signals.h"
#include "common/Clock.h"
#include "engine/Glob.h"
#include "reports/StatisticsGeneration.h"
#include "rtp/MyRtp.h"
#include "sip/MySip.h"

namespace {

constexpr const char* kMain = "quorvel_main";
constexpr const char* kDefaultConfiguration = "quorvel.conf";
constexpr std::size_t kOneArgument = 2;  // the program's name counts
constexpr std::size_t kTwoArguments = 3;

// One step of bringing the services up.
struct sStep {
  bool (*pfFails)(const ConfigurationPath& configuration);
  const char* pcFailure;
  int iExitStatus = kExitFailure;
};

bool logNumberOfChannels(const ConfigurationPath&) {
  Log::info(kMain, "The number of channels was set to %d\n", iNumCallsToFilter);
  return false;
}

bool reactToSignals(const ConfigurationPath&) {
  lastSignal = Clock::steadyTime().tv_sec;
  installSignalHandlers();
  myConfiguration.increaseProcessPriority();
  return false;
}

using Path = const ConfigurationPath&;
constexpr sStep kSteps[] = {
    {[](Path) { return myConfiguration.readNetworkInformation(); },
     "problem reading the network information\n"},
    {[](Path) { return myConfiguration.initializeNetwork() != 0; }, "problem initializing the network\n"},
    {[](Path path) { return myConfiguration.readParams(path.c_str(), false) != 0; },
     "problem reading parameters\n"},
    {logNumberOfChannels, ""},
    {[](Path) { return myConfiguration.writeTmpFile() != 0; }, "problem writing to tmp file\n"},
    {[](Path) { return mySip.init() != 0; }, "problem during init\n"},
    {[](Path) { return mySip.prepareConnection() != 0; }, "Could not prepare sip connection\n"},
    {[](Path) { return myRtp.init() != 0; }, "Could not initialize the media relay\n", kExitNoMediaRelay},
    {reactToSignals, ""},
    {[](Path) { return mySip.initRegistration() != 0; }, "Unable to do init registration\n"},
};

int bringUp(const ConfigurationPath& configuration) {
  for (const sStep& step : kSteps) {
    if (!step.pfFails(configuration)) continue;
    Log::error(kMain, "%s", step.pcFailure);
    return step.iExitStatus;
  }
  return kExitDone;
}

int run(std::span<char* const> arguments) {
  ConfigurationPath configuration;
  if (!takeInstanceName(arguments) || !findInstallation(std::getenv("KESTROVA_BIN")) ||
      !chooseConfiguration(arguments, configuration))
    return kExitFailure;
  Log::rememberTimeZone();
  Log::info(kMain, "Loading Quorvel version %s\n", QUORVEL_VERSION);
  const int status = bringUp(configuration);
  if (status != kExitDone) return status;
  mySip.pGenerateStatistics = [] { statisticsGeneration.generateRealTimeStatistics(); };
  mySip.mainLoop();
  myRtp.closeAll();  // calls may be up when the instance lock was lost
  return kExitDone;
}

}  // namespace

bool takeInstanceName(std::span<char* const> arguments) {
  if (arguments.size() != kTwoArguments) return true;
  if (pcKestrovaInstanceSuffix.assign(arguments[2])) return true;
  Log::early(kMain, "ERROR: The instance name is longer than %zu characters\n",
             pcKestrovaInstanceSuffix.maxLength());
  return false;
}

bool findInstallation(const char* kestrovaBin) {
  if (kestrovaBin == nullptr) {
    Log::early(kMain, "ERROR: Did not get value for environment variable KESTROVA_BIN\n");
    return false;
  }
  Log::early(kMain, "INFO: Got the value for environment variable KESTROVA_BIN \"%s\"\n", kestrovaBin);
  std::string_view directory = kestrovaBin;
  if (!directory.ends_with('/') && !directory.ends_with('\\')) {
    Log::early(kMain, "KESTROVA_BIN should end with slash (for Linux) or back-slash (for Windows)\n");
    return false;
  }
  // A value that was set together with its own name.
  constexpr std::string_view kOwnName = "KESTROVA_BIN=";
  if (directory.find(kOwnName) != std::string_view::npos) directory.remove_prefix(kOwnName.size());
  if (Glob::pcKestrovaBin.assign(directory)) return true;
  Log::early(kMain, "ERROR: The value of KESTROVA_BIN is longer than %zu characters\n",
             Glob::pcKestrovaBin.maxLength());
  return false;
}

bool chooseConfiguration(std::span<char* const> arguments, ConfigurationPath& path) {
  bool fits = false;
  if (arguments.size() == kOneArgument || arguments.size() == kTwoArguments) {
    fits = path.assign(arguments[1]);
  } else {
    Log::early(kMain, "ERROR: Usage: %s conf-file. Continue with default configuration name.\n",
               arguments.empty() ? "quorvel" : arguments[0]);
    fits = path.assign(Glob::pcKestrovaBin) && path.append(kDefaultConfiguration);
  }
  if (!fits)
    Log::error(kMain, "The path of the configuration file is longer than %zu characters\n", path.maxLength());
  return fits;
}

int quorvelMain(std::span<char* const> arguments) {
  ignoreFileSizeSignal();  // the log is written before the other signals are taken care of
  try {
    return run(arguments);
  } catch (...) {
    Log::error(kMain, "exception caught");
    if (myRtp.psPairs) _exit(kExitFailure);  // media threads may run: no destructors
    return kExitFailure;
  }
}
