#include "sip/BindingIndex.h"

#include <algorithm>

#include "common/TextHash.h"

namespace {

char folded(char character) {
  return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a') : character;
}

}  // namespace

std::uint64_t BindingIndex::hash(std::string_view text) {
  return TextHash::of(text);
}

std::uint64_t BindingIndex::foldedHash(std::string_view text) {
  TextHash hash;
  for (const char character : text) hash.add(folded(character));
  return hash.get();
}

void BindingIndex::reset() {
  psKeys = std::make_unique<sKeys[]>(kMaxBindings);
  psSubscriptionKeys =
      std::make_unique<sSubscriptionKeys[]>(static_cast<std::size_t>(kMaxBindings) * kMaxSubscriptions);
}

void BindingIndex::update(int binding, const sBinding& record) {
  sKeys& key = keys(binding);
  key.uNameHashes = {foldedHash(record.pcBindingName), foldedHash(record.pcBindingNameAtUA),
                     foldedHash(record.pcBindingNameAtDomain)};
  key.uRelayCallIdHash = hash(record.pcRelayCallID);
  key.uAddress = addressKey(record.sBindingAddress);
  key.uRevision = ++uLastRevision;
  key.tEarliestExpiry = std::max(record.tConfirmedExpiry, record.tRequestedExpiry);
  key.iNumSubscriptions = record.iNumSubscriptions;
  for (int entry = 0; entry < record.iNumSubscriptions; ++entry) {
    const sSubscription& subscription = record.subscription(entry);
    subscriptionKeys(binding)[entry] = {hash(subscription.relayCallID()), hash(subscription.pcPhoneCallID),
                                        subscription.iRelayCSeq};
    key.tEarliestExpiry =
        std::min(key.tEarliestExpiry, std::max(subscription.tConfirmedExpiry, subscription.tRequestedExpiry));
  }
}

void BindingIndex::move(int to, int from) {
  keys(to) = keys(from);
  std::copy_n(subscriptionKeys(from), keys(from).iNumSubscriptions, subscriptionKeys(to));
}
