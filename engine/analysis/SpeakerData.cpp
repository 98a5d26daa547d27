#include "engine/analysis/SpeakerData.h"

#include <algorithm>
#include <cstring>
#include <numeric>

namespace {

constexpr int kShortestPeriod = 12;  // samples, 667 Hz

constexpr bool isCount(int iCount, int iMaximum) {
  return iCount >= 0 && iCount <= iMaximum;
}

}  // namespace

int sSpeakerData::shortestPeriod() const {
  return std::max(iPitchCentre - 4 * iPitchSpread, kShortestPeriod);
}

bool sSpeakerHead::isConsistent() const {
  const auto isFlagOf = [](int bPresent, int iCount) { return bPresent == (iCount > 0 ? 1 : 0); };
  return iPitchCentre >= kShortestPeriod && iPitchCentre < kPitchBins && isCount(iPitchSpread, kAnyVoice) &&
         isCount(iHistograms, kMaxHistograms) && isFlagOf(bHistogramsPresent, iHistograms) &&
         isCount(iTemplates, kMaxTemplates) && isFlagOf(bTemplatesPresent, iTemplates);
}

bool sSpeakerData::canLoad(const std::uint8_t* puProfile) {
  sSpeakerHead head;
  std::memcpy(&head, puProfile, sizeof head);
  if (!head.isConsistent()) return false;
  const std::uint8_t* puTemplate = puProfile + sizeof head + kHistogramBytes;
  for (int i = 0; i < head.iTemplates; ++i, puTemplate += sizeof(sFftSchemaType)) {
    sFftSchemaType schema;
    std::memcpy(&schema, puTemplate, sizeof schema);
    if (!isCount(schema.iBins, sFftSchemaType::kMaxBins) ||
        !isCount(schema.iNoiseBins, sFftSchemaType::kMaxBins)) {
      return false;
    }
  }
  return true;
}

void sSpeakerData::load(const std::uint8_t* puProfile) {
  clear();
  sSpeakerHead& head = *this;
  std::memcpy(&head, puProfile, sizeof head);
  std::memcpy(histograms.data(), puProfile + sizeof head, kHistogramBytes);
  std::memcpy(templates.data(), puProfile + sizeof head + kHistogramBytes, kTemplateBytes);
}

void sSpeakerData::store(std::uint8_t* puProfile) const {
  const sSpeakerHead& head = *this;
  std::memcpy(puProfile, &head, sizeof head);
  std::memcpy(puProfile + sizeof head, histograms.data(), kHistogramBytes);
  std::memcpy(puProfile + sizeof head + kHistogramBytes, templates.data(), kTemplateBytes);
}

sSpeakerData::PackedPeriods sSpeakerData::packedPeriods() const {
  PackedPeriods uPeriods;
  std::transform(piPitchHistogram.begin(), piPitchHistogram.end(), uPeriods.begin(),
                 [](int iCount) { return static_cast<std::uint8_t>(std::clamp(iCount, 0, 255)); });
  return uPeriods;
}

void sSpeakerData::takePeriods(const PackedPeriods& uPeriods) {
  std::copy(uPeriods.begin(), uPeriods.end(), piPitchHistogram.begin());
  iPitchEntries = std::accumulate(piPitchHistogram.begin(), piPitchHistogram.end(), 0);
}
