// A learned voice in memory and in its file: a 4-byte length, little-endian, and as many bytes of the
// engine's speaker record.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>

#include "engine/Kestrova.h"

class VoiceProfile {
 public:
  // What the engine learns: a fixed part, and one record per learned pattern.
  static constexpr std::uint32_t kFixedBytes = 654'992;
  static constexpr std::uint32_t kPatternBytes = 4'740;
  static constexpr std::uint32_t kMaxBytes = kFixedBytes + KESTROVA_MAX_PATTERNS * kPatternBytes;

  // What it holds is to be written or read then. False when memory is short.
  [[nodiscard]] bool allocate(std::uint32_t bytes);

  // Null while empty.
  sAPISpeaker* speaker() { return reinterpret_cast<sAPISpeaker*>(pcBytes.get()); }
  const sAPISpeaker* speaker() const { return reinterpret_cast<const sAPISpeaker*>(pcBytes.get()); }

  enum class Read { eDone, eBadFile, eNoMemory };
  // Reads a whole file. A length that the file does not hold, or that no speaker record has, is refused
  // before anything is allocated, and a record that the engine would refuse is refused here, while the
  // channel still runs.
  [[nodiscard]] Read readFrom(std::FILE* file);

  // True when what was written has left the process.
  [[nodiscard]] bool writeLengthTo(std::FILE* file) const;
  [[nodiscard]] bool writeRecordTo(std::FILE* file) const;

 private:
  std::unique_ptr<std::byte[]> pcBytes;
  std::uint32_t iBytes = 0;
};

// Size of a file in bytes, its position put back to the start; nothing when it cannot be told, or when what
// was written to the file before cannot be stored.
[[nodiscard]] std::optional<std::uint32_t> fileBytes(std::FILE* file);
