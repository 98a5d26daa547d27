// The text of the DTMF digits heard so far: one character per key press, restarted after two seconds.
#pragma once

#include "common/FixedText.h"

class DigitText {
 public:
  // What one cycle held: a present digit, or none. iEndTime is the cycle's last sample time.
  void cycle(bool bPresent, char cDigit, int iEndTime);

  [[nodiscard]] const FixedText<100>& text() const { return pcDigits; }
  // End of the last cycle that held a digit, -1 before any.
  [[nodiscard]] int toneUntil() const { return iToneUntil; }

 private:
  void newTone(char cDigit, int iEndTime);

  FixedText<100> pcDigits;
  bool bToneRunning = false;
  int iMissingCycles = 0;
  int iToneUntil = -1;
  int iPreviousToneEnd = -99999;  // long before the stream began
};
