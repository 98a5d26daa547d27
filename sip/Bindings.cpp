// The binding table: who is bound, under which names, from where, until when.
#include <algorithm>
#include <numeric>
#include <strings.h>

#include "app/config/Log.h"
#include "common/Clock.h"
#include "sip/MySip.h"

namespace {

bool equalFolded(const FixedText<166>& left, std::string_view right) {
  return left.size() == right.size() && strncasecmp(left.c_str(), right.data(), right.size()) == 0;
}

// When something asked for now ends; an expiry below 1 ends at once.
std::int64_t endOf(int expires) {
  return expires < 1 ? 0 : static_cast<std::int64_t>(Clock::now()) + expires;
}

template <typename Record>
bool isExpired(const Record& record, std::int64_t now) {
  return now > record.tRequestedExpiry && now > record.tConfirmedExpiry;
}

// Closes the gaps of expired subscriptions. True when there were any.
bool removeExpiredSubscriptions(sBinding& record, std::int64_t now) {
  const int before = record.iNumSubscriptions;
  int kept = 0;
  for (int entry = 0; entry < before; ++entry) {
    if (isExpired(record.subscription(entry), now)) continue;
    if (kept != entry) record.subscription(kept) = record.subscription(entry);
    ++kept;
  }
  for (int entry = kept; entry < before; ++entry) record.subscription(entry) = sSubscription{};
  record.iNumSubscriptions = kept;
  return kept != before;
}

}  // namespace

// ---- Changes ----

void MySip::bindingChanged(int binding) {
  bindingIndex.update(binding, bindingAt(binding));
}

void MySip::emptyBindingTable() {
  for (int binding = 0; binding < iNumBindings; ++binding) clearBinding(bindingAt(binding));
  iNumBindings = 0;
  std::iota(piBindingOrder.begin(), piBindingOrder.end(), 0);
  bindingIndex.reset();
}

int MySip::processNewBindingInformation(std::string_view name, std::string_view nameAtUA,
                                        std::string_view nameAtDomain, std::string_view user,
                                        std::string_view contactIP, int contactPort,
                                        const sockaddr_in& address, int expires) {
  constexpr const char* kFunction = "MySip::processNewBindingInformation";
  int binding = bindingIndex.findByName(
      name, iNumBindings, [&](int candidate) { return bindingAt(candidate).pcBindingName == name; });
  const bool isNew = binding < 0;
  if (isNew && iNumBindings >= kMaxBindings) {
    Log::error(kFunction, "Unable to bind new request - table is full\n");
    return -1;
  }
  if (isNew) binding = iNumBindings;
  sBinding& record = bindingAt(binding);
  if (isNew) {
    if (!record.pcBindingName.assign(name) || !record.pcBindingNameAtUA.assign(nameAtUA) ||
        !record.pcBindingNameAtDomain.assign(nameAtDomain) || !record.pcBindingUser.assign(user)) {
      clearBinding(record);
      Log::error(kFunction, "name to bind is too long: %.*s\n", static_cast<int>(name.size()), name.data());
      return -1;
    }
    record.iRelayCSeqCounter = 1;
    for (sLastMsgData& stored : record.psLastMsgs) stored.iCSeq = -1;
    ++iNumBindings;
  }
  record.pcContactIP.assignCut(contactIP);
  record.iContactPort = contactPort;
  record.sBindingAddress = address;
  record.tRequestedExpiry = endOf(expires);
  if (iSipProxyArchitecture == 0) record.tConfirmedExpiry = record.tRequestedExpiry;
  bindingChanged(binding);
  return binding;
}

int MySip::processNewSubscriptionInformation(int binding, std::string_view callId, int expires) {
  sBinding& record = bindingAt(binding);
  for (int entry = 0; entry < record.iNumSubscriptions; ++entry) {
    if (record.subscription(entry).pcPhoneCallID != callId) continue;
    record.subscription(entry).tRequestedExpiry = endOf(expires);
    bindingChanged(binding);
    return entry;
  }
  if (record.iNumSubscriptions >= kMaxSubscriptions) {
    Log::error("MySip::processNewSubscriptionInformation",
               "Unable to process new SUBSCRIBE request  - table is full\n");
    return -1;
  }
  const int entry = record.iNumSubscriptions++;
  sSubscription& subscription = record.subscription(entry);
  subscription.tRequestedExpiry = endOf(expires);
  subscription.iNotifyCSeq = -1;
  fillNewTagData(subscription.pcRelayTag);
  drawRelayCallID(record, subscription.pcRelayCallID);
  bindingChanged(binding);
  return entry;
}

void MySip::drawRelayCallID(const sBinding& record, FixedText<62>& out) {
  FixedText<60> callId;
  fillNewCallID(record.pcBindingUser, callId);
  out.assignCut(callId);
}

// ---- Lookups ----

int MySip::getBindingIndex(std::string_view name) {
  return bindingIndex.findByName(name, iNumBindings, [&](int binding) {
    const sBinding& record = bindingAt(binding);
    return equalFolded(record.pcBindingName, name) || equalFolded(record.pcBindingNameAtUA, name) ||
           equalFolded(record.pcBindingNameAtDomain, name);
  });
}

bool MySip::doesAddressAppearInBindingTable(const sockaddr_in& address) {
  return bindingIndex.hasAddress(address, iNumBindings);
}

int MySip::findBindingByRelayedRegistration(std::string_view callId, int cseq) {
  if (callId.empty()) return -1;
  return bindingIndex.findByRelayCallID(callId, iNumBindings, [&](int binding) {
    return bindingAt(binding).iRelayCSeq == cseq && bindingAt(binding).pcRelayCallID == callId;
  });
}

MySip::sSubscriptionPlace MySip::findSubscriptionByRelayCallID(std::string_view callId, const int* relayCSeq,
                                                               bool mayBeContained) {
  sSubscriptionPlace place;
  if (callId.empty()) return place;
  const auto fits = [&](int binding, int entry) {
    const sSubscription& subscription = bindingAt(binding).subscription(entry);
    return relayCSeq == nullptr || subscription.iRelayCSeq == *relayCSeq;
  };
  const auto take = [&](int binding, int entry) {
    place = {binding, entry};
    return true;
  };
  bindingIndex.findSubscription(
      BindingIndex::CallIdKind::eRelay, callId, iNumBindings, [&](int binding, int entry) {
        const bool matches = bindingAt(binding).subscription(entry).relayCallID() == callId;
        return matches && fits(binding, entry) && take(binding, entry);
      });
  if (place || relayCSeq == nullptr || !mayBeContained) return place;
  bindingIndex.findRelayedSubscribe(*relayCSeq, iNumBindings, [&](int binding, int entry) {
    const std::string_view relayed = bindingAt(binding).subscription(entry).pcRelayCallID;
    return !relayed.empty() && contains(callId, relayed) && take(binding, entry);
  });
  return place;
}

MySip::sSubscriptionPlace MySip::findSubscriptionByPhoneCallID(std::string_view callId, int notifyRelayCSeq) {
  sSubscriptionPlace place;
  if (callId.empty()) return place;
  bindingIndex.findSubscription(
      BindingIndex::CallIdKind::ePhone, callId, iNumBindings, [&](int binding, int entry) {
        const sSubscription& subscription = bindingAt(binding).subscription(entry);
        if (subscription.iNotifyRelayCSeq != notifyRelayCSeq || subscription.pcPhoneCallID != callId)
          return false;
        place = {binding, entry};
        return true;
      });
  return place;
}

// ---- Expiry ----

// The bindings behind a removed one move up in the order; their records stay where they are.
void MySip::cleanupExpiredBindingsAndSubscriptions() {
  const std::int64_t now = Clock::now();
  std::array<int, kMaxBindings> freed;
  int numFreed = 0;
  int kept = 0;
  for (int binding = 0; binding < iNumBindings; ++binding) {
    const int record = piBindingOrder[static_cast<std::size_t>(binding)];
    const bool nothingExpired = now <= bindingIndex.earliestExpiry(binding);
    if (!nothingExpired && isExpired(bindingAt(binding), now)) {
      clearBinding(bindingAt(binding));
      freed[static_cast<std::size_t>(numFreed++)] = record;
      continue;
    }
    if (kept != binding) bindingIndex.move(kept, binding);
    piBindingOrder[static_cast<std::size_t>(kept)] = record;
    if (!nothingExpired && removeExpiredSubscriptions(bindingAt(kept), now)) bindingChanged(kept);
    ++kept;
  }
  std::copy_n(freed.begin(), numFreed, piBindingOrder.begin() + kept);
  iNumBindings = kept;
}
