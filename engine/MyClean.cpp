#include "engine/MyClean.h"

#include <cstddef>
#include <cstring>

#include "engine/MyChannel.h"

int MyClean::cleanOneFrame(const void* pIn, int iInBytes, bool bIs16Bit, void* pOut, int* piOutBytes) {
  pMyChannel->pInputData->addData(pIn, iInBytes, bIs16Bit);
  std::memmove(pOut, pIn, static_cast<std::size_t>(iInBytes));
  *piOutBytes = iInBytes;
  return 0;
}
