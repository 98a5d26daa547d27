#include "engine/Glob.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "common/RandomSeed.h"

FixedText<256> Glob::pcKestrovaBin;
FixedText<256> Glob::sAudioDirectory = [] {
  FixedText<256> text;
  text.assignCut("..\\audio\\");
  return text;
}();
int Glob::iCPUPower = 5;
int Glob::sAPIVersion = 0;

std::mutex Glob::logMutex;
std::mutex Glob::errMutex;
std::mutex Glob::timeMutex;
bool Glob::bLogMutexExists = false;
bool Glob::bErrMutexExists = false;
bool Glob::bTimeMutexExists = false;

namespace {
// Whatever is logged before this object exists is written without the mutexes: only one thread runs then.
const Glob glob;
}  // namespace

Glob::Glob() {
  // A std::mutex cannot fail to come into being; the flags say that static initialisation has reached this
  // point.
  bLogMutexExists = bErrMutexExists = bTimeMutexExists = true;
}

void Glob::initRandomPackage() {
  std::srand(randomSeed());
}

int Glob::getRandomInt(int lo, int hi) {
  if (lo >= hi) return hi;
  constexpr std::int64_t kRandMaximum = 2147483647;
  const std::int64_t lStep = std::max<std::int64_t>(1, kRandMaximum / (std::int64_t{hi} - lo + 1));
  return static_cast<int>(std::min<std::int64_t>(hi, lo + std::rand() / lStep));
}
