// Engine-wide globals: the installation directory, the processing effort, the random source and the mutexes
// that guard the log. The application's log uses the same mutexes, so that engine and application share one
// log file.
#pragma once

#include <mutex>

#include "common/FixedText.h"

class Glob {
 public:
  // Runs before main (one static object exists) and makes the three mutexes ready.
  Glob();

  // Installation directory, always ending with '/' or '\'. Empty until start-up has found it.
  static FixedText<256> pcKestrovaBin;
  // Directory of the engine's own audio files.
  static FixedText<256> sAudioDirectory;
  // Processing effort, 0 (least) to 10.
  static int iCPUPower;
  // Version of the call interface the package was initialised with; channels need 2.
  static int sAPIVersion;
  // Samples at 8 kHz from a verb's end within which a closing consonant must have ended, 2.25 s.
  static constexpr int iMaxDistanceBetweenVerbEndToPostVconstEnd = 18000;

  // Order where two are held: errMutex, then timeMutex. logMutex guards nothing today.
  static std::mutex logMutex;
  static std::mutex errMutex;   // one whole record of the log file
  static std::mutex timeMutex;  // one conversion of a time to text
  static bool bLogMutexExists;
  static bool bErrMutexExists;
  static bool bTimeMutexExists;

  // Seeds the standard generator with the current time.
  static void initRandomPackage();
  // A random integer from lo to hi, both included; hi when they are equal.
  static int getRandomInt(int lo, int hi);
};
