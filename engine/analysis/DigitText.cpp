#include "engine/analysis/DigitText.h"

namespace {

constexpr int kRestartAfterSamples = 16000;  // 2 s
constexpr int kCyclesThatEndATone = 11;      // 44 ms; a digit's own block of 11.5 ms may be lost in between

}  // namespace

void DigitText::cycle(bool bPresent, char cDigit, int iEndTime) {
  if (bPresent) {
    if (!bToneRunning) newTone(cDigit, iEndTime);
    iMissingCycles = 0;
    iToneUntil = iEndTime;
    return;
  }
  if (!bToneRunning || ++iMissingCycles < kCyclesThatEndATone) return;
  bToneRunning = false;
  iPreviousToneEnd = iToneUntil;
}

void DigitText::newTone(char cDigit, int iEndTime) {
  bToneRunning = true;
  const char pcDigit[2] = {cDigit, '\0'};
  if (iEndTime - iPreviousToneEnd > kRestartAfterSamples) {
    pcDigits.assignCut(pcDigit);
  } else if (!pcDigits.view().ends_with(cDigit)) {
    (void)pcDigits.append(pcDigit);  // the 100th digit has no room and is dropped
  }
}
