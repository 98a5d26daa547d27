// Finds the first record with a given Call-ID among N large records by looking only at one 64-bit hash per
// record: the hashes of 1,000 slots lie in 8 kB, where the slots themselves spread over tens of megabytes.
// The owner reports every change of a record's Call-ID and compares the text itself on a hit.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "common/TextHash.h"

class CallIdIndex {
 public:
  // Allocates for `count` records, all without Call-ID. Throws std::bad_alloc.
  void allocate(int count) {
    puHashes = std::make_unique<std::uint64_t[]>(static_cast<std::size_t>(count));
    iCount = count;
  }
  void set(int record, std::string_view callId) { puHashes[static_cast<std::size_t>(record)] = hash(callId); }

  // First record from `first` on, in index order, for which `isMatch(record)` holds among those with the
  // Call-ID's hash; -1 if none.
  template <typename IsMatch>
  int find(std::string_view callId, IsMatch isMatch, int first = 0) const {
    const std::uint64_t wanted = hash(callId);
    for (int record = first; record < iCount; ++record) {
      if (puHashes[static_cast<std::size_t>(record)] == wanted && isMatch(record)) return record;
    }
    return -1;
  }

  // The empty text gives 0, which no record in use has to match.
  static std::uint64_t hash(std::string_view text) { return text.empty() ? 0 : TextHash::of(text); }

 private:
  std::unique_ptr<std::uint64_t[]> puHashes;
  int iCount = 0;
};
