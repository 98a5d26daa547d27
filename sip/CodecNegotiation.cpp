// The codec list of a leg: what Quorvel can transcode, narrowed to what the peer's SDP offers. Entry 0 is the
// codec that is sent towards the leg.
#include <array>
#include <charconv>

#include "sip/MySip.h"

namespace {

constexpr auto kNotFound = std::string_view::npos;

// Position of a payload type among the formats of a media line: a word of its own with a blank before it (so
// that the port, with which the line begins, is none), written without leading zeros. npos if it is not
// offered.
std::size_t findFormat(std::string_view formats, int payloadType) {
  std::array<char, 12> digits{};
  const char* const end = std::to_chars(digits.data(), digits.data() + digits.size(), payloadType).ptr;
  const std::string_view wanted(digits.data(), static_cast<std::size_t>(end - digits.data()));
  for (std::size_t blank = formats.find(' '); blank != kNotFound; blank = formats.find(' ', blank + 1)) {
    const std::string_view word = formats.substr(blank + 1);
    if (word.substr(0, word.find(' ')) == wanted) return blank;
  }
  return kNotFound;
}

// Payload type that the section's rtpmap line gives the encoding name, or -1.
int learnPayloadType(std::string_view encodingName, std::string_view sdpRest) {
  if (encodingName.empty()) return -1;
  const std::size_t name = MySip::stristr(sdpRest, encodingName);
  if (name == kNotFound) return -1;
  const std::size_t colon = sdpRest.substr(0, name).rfind(':');
  int payloadType = -1;
  if (colon == kNotFound || !MySip::readDecimal(sdpRest.substr(colon + 1), payloadType)) return -1;
  return payloadType >= 0 && payloadType <= kMaxPayloadType ? payloadType : -1;
}

}  // namespace

void MySip::initializeCodecNegotiationList(int slot, bool /*unused*/) {
  sPhone& leg = phone(slot);
  leg.iNumCodecs = kNumOfferedCodecs;
  leg.psCodecs = {};
  for (std::size_t i = 0; i < kNumOfferedCodecs; ++i) {
    leg.psCodecs[i].eCodec = kCodecRows[i].eCodec;
    leg.psCodecs[i].iPayloadType = kCodecRows[i].iPayloadType;
    leg.psCodecs[i].pcName.assignCut(kCodecRows[i].pcName);
  }
}

void MySip::copyCodecNegotionList(int from, int to) {
  phone(to).iNumCodecs = phone(from).iNumCodecs;
  phone(to).psCodecs = phone(from).psCodecs;
}

void MySip::narrowCodecNegotiationList(int slot, std::string_view formats, std::string_view sdpRest) {
  struct sOffered {
    sCodecNegotiationList_t entry;
    std::size_t position = 0;
  };
  sPhone& leg = phone(slot);
  std::array<sOffered, kMaxCodecsPerLeg> kept;
  std::size_t count = 0;
  for (std::size_t i = 0; i < static_cast<std::size_t>(leg.iNumCodecs); ++i) {
    sCodecNegotiationList_t entry = leg.psCodecs[i];
    if (entry.iPayloadType == -1) entry.iPayloadType = learnPayloadType(entry.pcName, sdpRest);
    const std::size_t position =
        entry.iPayloadType == -1 ? kNotFound : findFormat(formats, entry.iPayloadType);
    if (position == kNotFound) continue;
    std::size_t place = count++;
    if (iCopyCodecListFromInitialInvite != 0) {  // the peer's order instead of ours
      for (; place > 0 && kept[place - 1].position > position; --place) kept[place] = kept[place - 1];
    }
    kept[place] = {entry, position};
  }
  leg.iNumCodecs = static_cast<int>(count);
  for (std::size_t i = 0; i < count; ++i) leg.psCodecs[i] = kept[i].entry;
}
