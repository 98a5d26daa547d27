// Addresses of the host names that messages carry (a Route, a redirection, a Contact), without making the SIP
// thread wait for a name service. Names are looked up beside it; an answer that comes at once is taken, a
// later one is kept for the next time. Until then the name counts as unknown. Called from the SIP thread
// only.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string_view>

#include "common/FixedText.h"

class HostNames {
 public:
  // Blocks. 0, or an error of getaddrinfo when the name has no IPv4 address.
  using Lookup = int (*)(const char* name, FixedText<16>& ip);

  explicit HostNames(Lookup how = askSystem) : lookup(how) {}

  // The name's address, dotted. False when it is not known (yet); logged then, but a name that has none only
  // once for each time that it was asked for.
  [[nodiscard]] bool find(std::string_view name, FixedText<16>& ip);

 private:
  static constexpr std::int64_t kSecond = 1'000'000'000;
  // In each second, for all names together: /etc/hosts and a name server nearby answer well within it, a call
  // is not heard to be delayed by it, and a message that carries many names does not hold up the others.
  static constexpr std::int64_t kLongestWait = kSecond / 50;
  static constexpr std::int64_t kKnownFor = 60 * kSecond;
  static constexpr std::int64_t kUnknownFor = 10 * kSecond;
  static constexpr std::size_t kHostCapacity = 256;  // a name has at most 253 characters (RFC 1035, 2.3.4)
  static constexpr std::size_t kEntries = 32;
  static constexpr std::size_t kLookups = 4;  // at a time: names that nobody answers for hold up so many

  struct sEntry {
    FixedText<kHostCapacity> pcName;
    FixedText<16> pcIP;            // empty: the name has no address
    std::int64_t iValidUntil = 0;  // on the monotonic clock
  };
  struct sRunning;  // shared with the thread that waits for the name service, which may outlive us

  static int askSystem(const char* name, FixedText<16>& ip);
  sEntry* findEntry(std::string_view name);
  sEntry& entryFor(std::string_view name);
  static bool isFresh(const sEntry& entry);
  void waitFor(std::shared_ptr<sRunning>& place);
  std::shared_ptr<sRunning>* begin(std::string_view name);
  void takeResult(std::shared_ptr<sRunning>& place, std::int64_t wait);

  Lookup lookup;
  std::array<std::shared_ptr<sRunning>, kLookups> psRunning;  // null: free
  std::array<sEntry, kEntries> psEntries;
  std::size_t uNextEntry = 0;  // the oldest gives way
  std::int64_t iWaitingSince = -kSecond;
  std::int64_t iWaited = 0;  // since then
};
