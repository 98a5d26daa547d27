// FNV-1a, 64 bits (Fowler, Noll, Vo), for indexes whose owner compares the texts on a hit.
#pragma once

#include <cstdint>
#include <string_view>

class TextHash {
 public:
  constexpr void add(char character) {
    value = (value ^ static_cast<unsigned char>(character)) * 1099511628211ULL;
  }
  constexpr std::uint64_t get() const { return value; }

  static constexpr std::uint64_t of(std::string_view text) {
    TextHash hash;
    for (const char character : text) hash.add(character);
    return hash.get();
  }

 private:
  std::uint64_t value = 14695981039346656037ULL;
};
