#include "rtp/VoiceProfile.h"

#include <limits>
#include <new>

namespace {

constexpr std::uint32_t kLengthBytes = 4;

bool isSpeakerLength(std::uint32_t length) {
  return length >= VoiceProfile::kFixedBytes && length <= VoiceProfile::kMaxBytes &&
         (length - VoiceProfile::kFixedBytes) % VoiceProfile::kPatternBytes == 0;
}

}  // namespace

bool VoiceProfile::allocate(std::uint32_t bytes) {
  pcBytes.reset(new (std::nothrow) std::byte[bytes]);
  iBytes = pcBytes ? bytes : 0;
  return pcBytes != nullptr;
}

VoiceProfile::Read VoiceProfile::readFrom(std::FILE* file) {
  const std::optional<std::uint32_t> available = fileBytes(file);
  unsigned char length[kLengthBytes];
  if (!available || std::fread(length, sizeof length, 1, file) != 1) return Read::eBadFile;
  const std::uint32_t bytes =
      static_cast<std::uint32_t>(length[0]) | static_cast<std::uint32_t>(length[1]) << 8 |
      static_cast<std::uint32_t>(length[2]) << 16 | static_cast<std::uint32_t>(length[3]) << 24;
  if (bytes > *available - kLengthBytes || !isSpeakerLength(bytes)) return Read::eBadFile;
  if (!allocate(bytes)) return Read::eNoMemory;
  const bool whole = std::fread(pcBytes.get(), bytes, 1, file) == 1;
  return whole && KestrovaCheckSpeakerInformation(speaker(), bytes) == 0 ? Read::eDone : Read::eBadFile;
}

bool VoiceProfile::writeLengthTo(std::FILE* file) const {
  const unsigned char length[kLengthBytes] = {
      static_cast<unsigned char>(iBytes), static_cast<unsigned char>(iBytes >> 8),
      static_cast<unsigned char>(iBytes >> 16), static_cast<unsigned char>(iBytes >> 24)};
  return std::fwrite(length, sizeof length, 1, file) == 1 && std::fflush(file) == 0;
}

bool VoiceProfile::writeRecordTo(std::FILE* file) const {
  return std::fwrite(pcBytes.get(), iBytes, 1, file) == 1 && std::fflush(file) == 0;
}

std::optional<std::uint32_t> fileBytes(std::FILE* file) {
  const long size = std::fseek(file, 0, SEEK_END) == 0 ? std::ftell(file) : -1;
  std::rewind(file);
  if (size < 0 || static_cast<unsigned long>(size) > std::numeric_limits<std::uint32_t>::max()) return {};
  return static_cast<std::uint32_t>(size);
}
