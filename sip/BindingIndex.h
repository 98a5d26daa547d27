// What is looked up or compared often about the bindings, side by side: the records lie 636 kB apart, so that
// a scan over 500 of them costs a page of memory each, while all their keys fit into 36 kB. The owner of the
// table reports every change of a record; a hit on a hash is confirmed on the record's own text.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string_view>

#include "sip/sBinding.h"

class BindingIndex {
 public:
  // Allocates, or forgets all bindings. Throws std::bad_alloc.
  void reset();

  // The record at the index is new or has changed.
  void update(int binding, const sBinding& record);
  // The record has moved to another index, unchanged.
  void move(int to, int from);

  // Changes with every change of the record and moves with it: equal revisions mean equal content.
  std::uint64_t revision(int binding) const { return keys(binding).uRevision; }

  // When the binding, or a subscription of it, can expire at the earliest: nothing to do up to and including
  // this time.
  std::int64_t earliestExpiry(int binding) const { return keys(binding).tEarliestExpiry; }

  // First of the first `count` bindings for which the question is answered with yes, among those whose hash
  // fits; -1 if none.
  template <typename IsMatch>
  int findByName(std::string_view name, int count, IsMatch isMatch) const {
    const std::uint64_t wanted = foldedHash(name);
    for (int binding = 0; binding < count; ++binding) {
      const auto& hashes = keys(binding).uNameHashes;
      const bool mayMatch = hashes[0] == wanted || hashes[1] == wanted || hashes[2] == wanted;
      if (mayMatch && isMatch(binding)) return binding;
    }
    return -1;
  }
  template <typename IsMatch>
  int findByRelayCallID(std::string_view callId, int count, IsMatch isMatch) const {
    const std::uint64_t wanted = hash(callId);
    for (int binding = 0; binding < count; ++binding) {
      if (keys(binding).uRelayCallIdHash == wanted && isMatch(binding)) return binding;
    }
    return -1;
  }
  bool hasAddress(const sockaddr_in& address, int count) const {
    for (int binding = 0; binding < count; ++binding) {
      if (keys(binding).uAddress == addressKey(address)) return true;
    }
    return false;
  }

  // First subscription whose last SUBSCRIBE to the PBX had that CSeq and for which the question is answered
  // with yes; isMatch(binding, entry). False if none.
  template <typename IsMatch>
  bool findRelayedSubscribe(std::int32_t cseq, int count, IsMatch isMatch) const {
    for (int binding = 0; binding < count; ++binding) {
      for (int entry = 0; entry < keys(binding).iNumSubscriptions; ++entry) {
        if (subscriptionKeys(binding)[entry].iRelayCSeq == cseq && isMatch(binding, entry)) return true;
      }
    }
    return false;
  }

  enum class CallIdKind { eRelay, ePhone };
  // The same among the subscriptions; isMatch(binding, entry). False if none.
  template <typename IsMatch>
  bool findSubscription(CallIdKind kind, std::string_view callId, int count, IsMatch isMatch) const {
    const std::uint64_t wanted = hash(callId);
    for (int binding = 0; binding < count; ++binding) {
      const sSubscriptionKeys* entries = subscriptionKeys(binding);
      for (int entry = 0; entry < keys(binding).iNumSubscriptions; ++entry) {
        const std::uint64_t have =
            kind == CallIdKind::eRelay ? entries[entry].uRelayCallIdHash : entries[entry].uPhoneCallIdHash;
        if (have == wanted && isMatch(binding, entry)) return true;
      }
    }
    return false;
  }

 private:
  struct sKeys {
    std::array<std::uint64_t, 3> uNameHashes{};
    std::uint64_t uRelayCallIdHash = 0;
    std::uint64_t uAddress = 0;
    std::uint64_t uRevision = 0;
    std::int64_t tEarliestExpiry = 0;
    int iNumSubscriptions = 0;
  };
  struct sSubscriptionKeys {
    std::uint64_t uRelayCallIdHash = 0;
    std::uint64_t uPhoneCallIdHash = 0;
    std::int32_t iRelayCSeq = 0;
  };

  static std::uint64_t hash(std::string_view text);
  // The same for all spellings of a text in capital and small letters.
  static std::uint64_t foldedHash(std::string_view text);
  static std::uint64_t addressKey(const sockaddr_in& address) {
    return std::uint64_t{address.sin_addr.s_addr} << 16 | address.sin_port;
  }

  sKeys& keys(int binding) { return psKeys[static_cast<std::size_t>(binding)]; }
  const sKeys& keys(int binding) const { return psKeys[static_cast<std::size_t>(binding)]; }
  sSubscriptionKeys* subscriptionKeys(int binding) const {
    return psSubscriptionKeys.get() + static_cast<std::ptrdiff_t>(binding) * kMaxSubscriptions;
  }

  std::unique_ptr<sKeys[]> psKeys;
  std::unique_ptr<sSubscriptionKeys[]> psSubscriptionKeys;
  std::uint64_t uLastRevision = 0;
};
