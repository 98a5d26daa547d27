// Finds session pairs by Call-ID and finds free slots without walking through the pair records, which are 90
// kB apart: one row of two hashes per slot. A hit is a candidate; the caller compares the texts. SIP thread
// only.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <string_view>

#include "common/TextHash.h"

class PairIndex {
 public:
  using Key = std::uint64_t;

  // False when memory is short.
  [[nodiscard]] bool allocate(int numPairs) {
    psRows.reset(new (std::nothrow) Row[static_cast<std::size_t>(numPairs)]());
    iNumPairs = psRows ? numPairs : 0;
    return psRows != nullptr;
  }

  // Always odd: 0 marks a free slot.
  static Key keyOf(std::string_view callId) { return TextHash::of(callId) | 1U; }

  [[nodiscard]] int size() const { return iNumPairs; }
  // Lowest free slot, or -1.
  [[nodiscard]] int firstFree() const {
    for (int i = 0; i < iNumPairs; ++i)
      if (psRows[i][0] == 0) return i;
    return -1;
  }
  void occupy(int pair, std::string_view callId0, std::string_view callId1) {
    psRows[pair] = {keyOf(callId0), keyOf(callId1)};
  }
  void release(int pair) { psRows[pair] = {}; }
  // No Call-ID leads to the slot any more, and it is not free yet.
  void retire(int pair) { psRows[pair] = {kRetired, kRetired}; }

  // Lowest slot from `first` to `last` in which one of the two keys stands, or -1.
  [[nodiscard]] int find(Key key1, Key key2, int first, int last) const {
    for (int i = first; i <= last; ++i) {
      const Row& row = psRows[i];
      if (row[0] == key1 || row[1] == key1 || row[0] == key2 || row[1] == key2) return i;
    }
    return -1;
  }

 private:
  using Row = std::array<Key, 2>;
  static constexpr Key kRetired = 2;  // no Call-ID has an even key
  std::unique_ptr<Row[]> psRows;
  int iNumPairs = 0;
};
