// Values that one thread writes and others read without a lock.
//
//   Relaxed<T>        one value, no order against other values; reads and writes look like those of a plain
//   T. PublishedCounter  a counter with its shadow; a reader sees a value only when both halves agree.
//   SharedText<N>     a text that a reload may replace while media threads read it.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "common/FixedText.h"

template <typename T>
class Relaxed {
  static_assert(std::atomic<T>::is_always_lock_free, "must stay usable from signal handlers");

 public:
  constexpr Relaxed() = default;
  constexpr Relaxed(T initial) : value(initial) {}  // NOLINT(google-explicit-constructor)
  Relaxed(const Relaxed& other) : value(other.load()) {}
  Relaxed& operator=(const Relaxed& other) {
    store(other.load());
    return *this;
  }

  T load() const { return value.load(std::memory_order_relaxed); }
  void store(T next) { value.store(next, std::memory_order_relaxed); }

  operator T() const { return load(); }  // NOLINT(google-explicit-constructor)
  T operator=(T next) {                  // NOLINT(misc-unconventional-assign-operator)
    store(next);
    return next;
  }

  // Only the owning thread changes the value, so read-modify-write needs no atomic operation.
  Relaxed& operator+=(T difference) {
    store(static_cast<T>(load() + difference));
    return *this;
  }
  Relaxed& operator++() { return *this += static_cast<T>(1); }
  Relaxed& operator--() { return *this += static_cast<T>(-1); }
  void raiseTo(T candidate) {
    if (candidate > load()) store(candidate);
  }

 private:
  std::atomic<T> value{};
};

// Published by a media thread, read by the SIP thread. The shadow is always value - 1, so that a pair caught
// half written, and the pair (0, 0) that says "nothing counted", read as no value.
class PublishedCounter {
 public:
  void publish(std::int32_t next) {
    value.store(next, std::memory_order_relaxed);
    shadow.store(next - 1, std::memory_order_release);
  }
  void reset() {
    value.store(0, std::memory_order_relaxed);
    shadow.store(0, std::memory_order_release);
  }
  // The counter's own thread reads what it last wrote.
  std::int32_t own() const { return value.load(std::memory_order_relaxed); }

  std::optional<std::int32_t> read() const {
    const std::int32_t before = shadow.load(std::memory_order_acquire);
    const std::int32_t current = value.load(std::memory_order_relaxed);
    if (before + 1 != current) return std::nullopt;
    return current;
  }

 private:
  std::atomic<std::int32_t> value{0};
  std::atomic<std::int32_t> shadow{0};
};

// One writer (the main thread). A reader gets the old or the new text, never a mixture: it copies and looks
// whether the revision moved meanwhile (a sequence lock; the writer never waits). The bytes are released and
// acquired one by one instead of through fences, which the thread sanitizer cannot follow: whoever reads a
// new byte then also sees that the revision has moved.
template <std::size_t N>
class SharedText {
 public:
  static constexpr std::size_t maxLength() { return N - 1; }

  [[nodiscard]] bool assign(std::string_view text) {
    if (text.size() > maxLength()) return false;
    const std::uint32_t current = revision.load(std::memory_order_relaxed);
    revision.store(current + 1, std::memory_order_relaxed);
    for (std::size_t i = 0; i < text.size(); ++i) pcBytes[i].store(text[i], std::memory_order_release);
    pcBytes[text.size()].store('\0', std::memory_order_release);
    revision.store(current + 2, std::memory_order_release);
    return true;
  }
  void clear() { (void)assign({}); }

  [[nodiscard]] FixedText<N> load() const {
    FixedText<N> copy;
    for (;;) {
      const std::uint32_t before = revision.load(std::memory_order_acquire);
      for (std::size_t i = 0; i < N; ++i) {
        copy.data()[i] = pcBytes[i].load(std::memory_order_acquire);
        if (copy.data()[i] == '\0') break;
      }
      if ((before & 1U) == 0 && revision.load(std::memory_order_relaxed) == before) return copy;
    }
  }
  [[nodiscard]] bool empty() const { return pcBytes[0].load(std::memory_order_relaxed) == '\0'; }

 private:
  std::atomic<std::uint32_t> revision{0};
  std::array<std::atomic<char>, N> pcBytes{};
};
