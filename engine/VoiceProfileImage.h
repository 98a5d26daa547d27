// A voice profile as it stands in a buffer (sAPISpeaker): what SpeakerData.h and LearnedVoice.h put into it,
// and the sums that tell an altered one.
#pragma once

#include <cstdint>
#include <optional>

class MyChannel;

// Bytes of a profile with that many pattern records.
[[nodiscard]] std::uint32_t profileBytes(int iRecords);
// Pattern records of a profile whose version, figures and sum are right. Reads its fixed part only, which
// must be there.
[[nodiscard]] std::optional<int> recordsOfProfile(const std::uint8_t* puProfile);
// Whether as many bytes are one profile and nothing else, all its sums right.
[[nodiscard]] bool isWholeProfile(const std::uint8_t* puProfile, std::uint32_t uBytes);
// Takes a profile into a channel that is initialised for it. False, and nothing is learned, when it is not
// usable.
[[nodiscard]] bool loadProfile(MyChannel& channel, const std::uint8_t* puProfile);
// Sets the sum over the fixed part, whatever it holds.
void setSumOfFixedPart(std::uint8_t* puProfile);
// Writes profileBytes(...) bytes of what the channel has learned.
void storeProfile(const MyChannel& channel, std::uint8_t* puProfile);
