#include "engine/analysis/SpeakerData.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr int kShortestPeriod = 12;  // samples, 667 Hz

constexpr bool isCount(int iCount, int iMaximum) {
  return iCount >= 0 && iCount <= iMaximum;
}

}  // namespace

int sSpeakerData::shortestPeriod() const {
  return std::max(iPitchCentre - 4 * iPitchSpread, kShortestPeriod);
}

bool sSpeakerData::load(const std::uint8_t* puProfile) {
  clear();
  sSpeakerHead head;
  std::memcpy(&head, puProfile, sizeof head);
  if (!isCount(head.iHistograms, kMaxHistograms) || !isCount(head.iTemplates, kMaxTemplates)) return false;
  static_cast<sSpeakerHead&>(*this) = head;
  std::memcpy(histograms.data(), puProfile + sizeof head, kHistogramBytes);
  std::memcpy(templates.data(), puProfile + sizeof head + kHistogramBytes, kTemplateBytes);
  for (int i = 0; i < head.iTemplates; ++i) {
    const sFftSchemaType& schema = templates[static_cast<std::size_t>(i)];
    if (isCount(schema.iBins, sFftSchemaType::kMaxBins) &&
        isCount(schema.iNoiseBins, sFftSchemaType::kMaxBins)) {
      continue;
    }
    clear();
    return false;
  }
  return true;
}

void sSpeakerData::store(std::uint8_t* puProfile) const {
  const sSpeakerHead& head = *this;
  std::memcpy(puProfile, &head, sizeof head);
  std::memcpy(puProfile + sizeof head, histograms.data(), kHistogramBytes);
  std::memcpy(puProfile + sizeof head + kHistogramBytes, templates.data(), kTemplateBytes);
}
