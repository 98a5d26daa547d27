#include "engine/MyClean.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "engine/MyChannel.h"

namespace {

// Keys are often pressed in a row; what lies between them is left alone.
constexpr int kAfterToneSamples = 40000;  // 5 s

constexpr int kLongestStream = 1 << 30;

constexpr int kKeptSegments = 2;

}  // namespace

void MyClean::beforeCleaning() {
  iLastTonePosition = kNoTone;
  iLastOutput = -1;
  pMyChannel->pMyDtmf->clean();
  pMyChannel->pMySubState->clean();
  pMyChannel->pCycleInformation->clean();
  pMyChannel->pFirstScan->clean();
  for (auto& pSbt : pMyChannel->psSbt) {
    if (pSbt) pSbt->clean();
  }
  if (pMyChannel->pSourceSeparation) pMyChannel->pSourceSeparation->cleanHistory();
}

bool MyClean::isStreamWorn() const {
  return pMyChannel->pInputData->getNumValues() >= kLongestStream;
}

void MyClean::restartStream() {
  pMyChannel->pInputData->openSynchronized();
  pMyChannel->pOutputData->openSynchronized();
  pMyChannel->iLastEchoPosition = MyChannel::kNoEchoPosition;
  beforeCleaning();
}

int MyClean::cleanOneFrame(const void* pIn, int iInBytes, bool bIs16Bit, void* pOut, int* piOutBytes) {
  *piOutBytes = 0;
  if (isStreamWorn()) restartStream();
  pMyChannel->pInputData->addData(pIn, iInBytes, bIs16Bit);
  bool bMore = true;
  int iError = 0;
  // Cycle by cycle, so that the result does not depend on how the stream is cut into frames.
  for (pMyChannel->pFirstScan->handleNextFrame(&bMore); bMore;
       pMyChannel->pFirstScan->handleNextFrame(&bMore)) {
    if (!pMyChannel->pFirstScan->isActive()) continue;
    iError = std::max(iError, outputResults());
    if (iError == 0 && pMyChannel->psSbt[0]) pMyChannel->psSbt[0]->afterFrameProcessed();
  }
  *piOutBytes = pMyChannel->pOutputData->take(pOut, iInBytes / (bIs16Bit ? 2 : 1), pMyChannel->b16Bit);
  return iError;
}

void MyClean::afterCleaning(std::FILE* pFile) const {
  FirstScan& scan = *pMyChannel->pFirstScan;
  for (int i = 0; i < scan.closedSegments(); ++i) FirstScan::printSegment(pFile, scan.closedSegment(i));
  pMyChannel->pMySubState->print(pFile);
}

int MyClean::outputResults() {
  const CycleInformation& cycles = *pMyChannel->pCycleInformation;
  const int iReleasedEnd = cycles.at(pMyChannel->pFirstScan->released()).EndIndex;
  int iLargest = 0;
  while (iLastOutput < iReleasedEnd) {
    const cHandle cycle = cycles.cycleOf(iLastOutput + 1);
    iLargest = std::max(iLargest, writeCycle(cycle));
    iLastOutput = cycles.at(cycle).EndIndex;
  }
  FirstScan& scan = *pMyChannel->pFirstScan;
  while (scan.closedSegments() > kKeptSegments && !pMyChannel->bRegistrationRunning) scan.shiftOneSegment();
  return iLargest;
}

int MyClean::writeCycle(cHandle cycle) {
  if (pMyChannel->bIsAecChannel) {
    return pMyChannel->isEchoMicrophone() ? pMyChannel->pOutputData->writeAEC(cycle) : 0;
  }
  const sCycleInformation& info = pMyChannel->pCycleInformation->at(cycle);
  OutputData& output = *pMyChannel->pOutputData;
  if (info.bTone) iLastTonePosition = info.EndIndex;
  if (info.EndIndex - iLastTonePosition < kAfterToneSamples) return output.writeDTMF(cycle);
  if (pMyChannel->bBypassVAD) return output.writeData(cycle);
  if (!info.bInVerb) return output.writeSilence(cycle);
  const sSegment* pSegment = pMyChannel->pFirstScan->findSegment(info.StartIndex);
  const bool bOtherTalker = pSegment != nullptr && pSegment->type == kOtherVerb;
  return bOtherTalker ? output.writeSilence(cycle) : output.writeData(cycle);
}
