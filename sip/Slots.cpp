// Slots, calls and generators.
#include <bit>
#include <cstdlib>
#include <new>
#include <utility>

#include "app/config/Log.h"
#include "common/Clock.h"
#include "engine/Glob.h"
#include "sip/MySip.h"

namespace {

constexpr std::size_t kCallIdLength = 59;
// 32 bits: two of a thousand remembered calls of one name agree with a chance of one in 8,600.
constexpr std::size_t kMinRandomCallIdDigits = 8;
// rand() spans 0 to 2^31 - 1; dividing by a tenth (a sixteenth) of that gives 0 to 10 (16), and the top
// value, which only the last few numbers reach, counts as the highest digit.
constexpr int kRandPerDecimalDigit = 214748364;
constexpr int kRandPerHexDigit = 134217727;

char randomDecimalDigit() {
  const int digit = std::rand() / kRandPerDecimalDigit;
  return static_cast<char>('0' + (digit > 9 ? 9 : digit));
}

char randomHexDigit() {
  const int digit = std::rand() / kRandPerHexDigit;
  return "0123456789ABCDEF"[digit > 15 ? 15 : digit];
}

// Takes the texts of a list, in which each is followed by ';', one after the other.
class ListReader {
 public:
  explicit ListReader(std::string_view list) : rest(list) {}
  // False when no further ';' follows.
  bool next(std::string_view& out) {
    const std::size_t end = rest.find(';');
    if (end == std::string_view::npos) return false;
    out = rest.substr(0, end);
    rest.remove_prefix(end + 1);
    return true;
  }

 private:
  std::string_view rest;
};

// How one half of the slots is named: a list, or a prefix followed by the number within the half.
struct sNaming {
  std::string_view names;
  std::string_view secrets;
  std::string_view prefix;
  bool bShouldRegister;
  const char* pcNotEnoughNames;
  const char* pcNotEnoughSecrets;
};

constexpr const char* kInit = "MySip::init";

bool nameIdentity(sPhone& phone, std::string_view name) {
  return phone.pcUserName.assign(name) &&
         phone.pcSipName.format("%s@%s", phone.pcUserName.c_str(), pcSipProxyDomain.c_str());
}

int nameSlot(sPhone& phone, int number, const sNaming& naming, ListReader& names, ListReader& secrets) {
  FixedText<120> generated;
  std::string_view name;
  if (naming.names.empty()) {
    generated.assignCut(naming.prefix);
    (void)generated.appendFormat("%d", number);
    name = generated;
  } else {
    if (!names.next(name)) {
      Log::error(kInit, "%s", naming.pcNotEnoughNames);
      return 2;
    }
    std::string_view secret;
    if (!naming.secrets.empty() && !secrets.next(secret)) {
      Log::error(kInit, "%s", naming.pcNotEnoughSecrets);
      return 2;
    }
    if (!naming.secrets.empty() && !phone.pcSecret.assign(secret)) {
      Log::error(kInit, "secret of phone %d is longer than %d characters\n", number,
                 static_cast<int>(phone.pcSecret.maxLength()));
      return 2;
    }
  }
  if (!nameIdentity(phone, name)) {
    Log::error(kInit, "name of phone %d is longer than %d characters\n", number,
               static_cast<int>(phone.pcUserName.maxLength()));
    return 2;
  }
  phone.bShouldRegister = naming.bShouldRegister;
  return 0;
}

}  // namespace

int MySip::init(BindingFiles files) {
  try {
    if (allocateTables() != 0) return 2;
    Glob::initRandomPackage();
    bAllPhonesActive = false;
    sTimeLastTick = sTimeLastRegistrationCheck = sTimeLastStatistics = 0;
    iNextOldCall = 0;
    iActiveCalls = 0;
    uOrigInUse.fill(0);

    for (int slot = 0; slot < iNumSlots; ++slot) {
      sPhone& leg = phone(slot);
      leg = sPhone{};
      leg.pcViaParams.assignCut(";rport");
      leg.pcSecret = pcSecret;
      leg.iPairIndex = isOrigSlot(slot) ? slot + numOrigSlots() : slot - numOrigSlots();
      // A first port that is none gives none to any slot.
      const std::int64_t port = std::int64_t{iRtpUAPortInitVal} + 2 * slot;
      leg.iRtpPort = std::in_range<int>(port) ? static_cast<int>(port) : 0;
    }
    initTrunk();
    if (nameSlots() != 0) return 2;
    for (int slot = 0; slot < iNumSlots; ++slot) initRegistrationIdentity(phone(slot));
    if (!canMakeCallIDs()) return 2;
    loadBindingFiles(files);
    return 0;
  } catch (...) {
    Log::error(kInit, "exception caught");
    return 2;
  }
}

int MySip::allocateTables() {
  iNumSlots = iNumPhonesToAllocate;
  const auto slots = static_cast<std::size_t>(iNumSlots);
  try {
    psPhones = std::make_unique<sPhone[]>(slots);
    // Zero bytes are an empty copy: no Call-ID. A copy's pages come into memory when its first call ends.
    psOldCalls.reset(static_cast<sPhone*>(std::calloc(slots, sizeof(sPhone))));
    psBindings.reset(static_cast<sBinding*>(std::calloc(kMaxBindings, sizeof(sBinding))));
    // Not filled, either: a number that the relay will refuse must not take memory before it does.
    piActiveRtpIndexes = std::make_unique_for_overwrite<int[]>(static_cast<std::size_t>(iNumCallsToFilter));
    slotIndex.allocate(iNumSlots);
    oldCallIndex.allocate(iNumSlots);
    if (psOldCalls && psBindings) return 0;
  } catch (const std::bad_alloc&) {
  }
  Log::error(kInit, "Unable to allocate\n");
  return 2;
}

void MySip::initTrunk() {
  sTrunk = sPhone{};
  sTrunk.pcSecret = pcSecret;
  sTrunk.pcViaParams.assignCut(";rport");
  bTrunkExists = !pcTrunkName.empty();
  if (!bTrunkExists) return;
  (void)nameIdentity(sTrunk, pcTrunkName);  // the key's limits keep both within their fields
  sTrunk.bShouldRegister = iRegisterTrunk == 1;
  initRegistrationIdentity(sTrunk);
}

int MySip::nameSlots() {
  const sNaming origNaming{pcOrigPhonesName,
                           pcOrigPhonesSecret,
                           pcOrigPhonesNamePrefix,
                           iRegisterOrigPhones == 1,
                           "not enough names in pcOrigPhonesName\n",
                           "not enough secrets in pcOrigPhonesSecret\n"};
  const sNaming pairNaming{pcPairPhonesName,
                           pcPairPhonesSecret,
                           pcPairPhonesNamePrefix,
                           iRegisterPairPhones == 1,
                           "not enough names in pcPairPhonesName\n",
                           "not enough secrets in pcPairPhonesSecret\n"};
  int first = 0;
  for (const sNaming* naming : {&origNaming, &pairNaming}) {
    ListReader names(naming->names);
    ListReader secrets(naming->secrets);
    for (int number = 0; number < numOrigSlots(); ++number) {
      if (nameSlot(phone(first + number), number, *naming, names, secrets) != 0) return 2;
    }
    first = numOrigSlots();
  }
  return 0;
}

// An identity whose name leaves no room for a Call-ID could neither register nor call: better not to start.
bool MySip::canMakeCallIDs() {
  const auto hasRoom = [](const sPhone& identity) {
    const std::size_t used = identity.pcUserName.size() + pcSipUAIP.size() + 1;
    if (used > kCallIdLength) {
      Log::error(kInit, "name %s is too long: with SipUAIP %s and \"@\" it must not exceed %d characters\n",
                 identity.pcUserName.c_str(), pcSipUAIP.c_str(), static_cast<int>(kCallIdLength));
      return false;
    }
    if (used + kMinRandomCallIdDigits > kCallIdLength)
      Log::warning(kInit, "name %s is so long that only %d random characters begin its Call-IDs\n",
                   identity.pcUserName.c_str(), static_cast<int>(kCallIdLength - used));
    return true;
  };
  if (sTrunk.bShouldRegister && !hasRoom(sTrunk)) return false;
  for (int slot = 0; slot < iNumSlots; ++slot) {
    const sPhone& leg = phone(slot);
    if ((leg.bShouldRegister || !isOrigSlot(slot)) && !hasRoom(leg)) return false;
  }
  return true;
}

void MySip::initRegistrationIdentity(sPhone& identity) {
  fillNewTagData(identity.pcRegistrationTag);
  fillNewCallID(identity.pcUserName, identity.pcRegistrationCallID);
}

// ---- Call state ----

// Every change of the two flags that make a call active goes through here.
template <typename Change>
void MySip::changeState(int slot, Change change) {
  sPhone& leg = phone(slot);
  const auto isActive = [&leg] { return leg.bInUse && !leg.bTerminating; };
  const bool before = isActive();
  change(leg);
  if (!isOrigSlot(slot)) return;
  if (isActive() != before) iActiveCalls += before ? -1 : 1;
  const std::uint64_t bit = std::uint64_t{1} << (slot % 64);
  std::uint64_t& word = uOrigInUse[static_cast<std::size_t>(slot / 64)];
  word = leg.bInUse ? word | bit : word & ~bit;
}

void MySip::occupySlot(int slot) {
  changeState(slot, [](sPhone& leg) {
    leg.bInUse = true;
    leg.bTerminating = false;
  });
}

void MySip::markTerminating(int slot) {
  const std::time_t now = Clock::now();
  for (const int leg : {slot, phone(slot).iPairIndex}) {
    changeState(leg, [now](sPhone& changed) {
      changed.bTerminating = true;
      changed.sTimeTerminationStart = now;
    });
  }
}

void MySip::freeSlot(int slot) {
  changeState(slot, [](sPhone& leg) { leg.bInUse = false; });
}

void MySip::releaseCall(int first) {
  const int second = phone(first).iPairIndex;
  freeSlot(first);
  freeSlot(second);
  moveCallToOldCalls(first);
  moveCallToOldCalls(second);
}

int MySip::firstFreeOrigSlot() const {
  for (std::size_t word = 0; word < uOrigInUse.size(); ++word) {
    const int slot = static_cast<int>(word) * 64 + std::countr_one(uOrigInUse[word]);
    if (slot >= numOrigSlots()) return -1;
    if (uOrigInUse[word] != ~std::uint64_t{0}) return slot;
  }
  return -1;
}

void MySip::setCallID(int slot, std::string_view callId) {
  phone(slot).pcCallID.assignCut(callId);
  slotIndex.set(slot, phone(slot).pcCallID);
}

int MySip::findSlot(std::string_view callId) const {
  return slotIndex.find(
      callId, [&](int slot) { return psPhones[static_cast<std::size_t>(slot)].pcCallID == callId; });
}

int MySip::findSlotInUse(std::string_view callId) const {
  return slotIndex.find(callId, [&](int slot) {
    const sPhone& leg = psPhones[static_cast<std::size_t>(slot)];
    return leg.bInUse && leg.pcCallID == callId;
  });
}

// ---- Old calls ----

void MySip::moveCallToOldCalls(int slot) {
  oldCall(iNextOldCall) = phone(slot);
  oldCallIndex.set(iNextOldCall, phone(slot).pcCallID);
  iNextOldCall = iNextOldCall + 1 < iNumSlots ? iNextOldCall + 1 : 0;
}

int MySip::findOldCall(std::string_view callId) const {
  return oldCallIndex.find(
      callId, [&](int record) { return psOldCalls[static_cast<std::size_t>(record)].pcCallID == callId; });
}

bool MySip::checkOldCalls(std::string_view callId, std::string_view firstLine, int cseq,
                          std::string_view cseqText) {
  const int index = findOldCall(callId);
  if (index < 0) return false;
  sPhone& copy = oldCall(index);
  const int status = statusCodeOf(firstLine);
  if (status == 200) return true;
  if (isMethod(firstLine, "BYE ")) {
    sendResponse(copy, "SIP/2.0 200 OK", cseq, "BYE", false);
    return true;
  }
  // An error response that repeats because its ACK was lost. Requests of an ended call get no answer.
  if (status < 300 || !contains(cseqText, "INVITE")) return true;
  if (cseq == copy.iInviteCSeq) {
    sendOfInvite(copy, "ACK", copy.pcRemoteSipName, false);
  } else if (cseq == copy.iPrevInviteCSeq) {
    acknowledgeRefusal(copy, cseq, copy.pcPrevRemoteTag, copy.pcPrevBranch);
  }
  return true;
}

void MySip::eraseOneTimeRoutingMsgAndDestinationIP(sPhone& leg) {
  leg.pcOneTimeRoutingMsg.clear();
  leg.pcOneTimeDestinationHost.clear();
}

// ---- Generators ----

void MySip::fillNewTagData(FixedText<17>& out) {
  constexpr int kDigits = 11;
  out.assignCut(";tag=");
  for (int i = 0; i < kDigits; ++i) {
    const char digit = randomDecimalDigit();
    (void)out.append({&digit, 1});
  }
}

void MySip::fillNewBranchData(FixedText<41>& out) {
  constexpr int kDigits = 33;
  FixedText<kDigits + 1> digits;
  for (int i = 0; i < kDigits; ++i) digits.data()[i] = randomHexDigit();
  out.assignCut("z9hG4bK");  // the magic cookie of RFC 3261, 8.1.1.7
  (void)out.append(digits);
}

void MySip::fillNewCallID(std::string_view user, FixedText<60>& out) {
  out.clear();
  const std::size_t fixedLength = pcSipUAIP.size() + user.size() + 1;
  if (fixedLength > kCallIdLength) {
    Log::error("MySip::fillNewCallID", "size of call ID %d is too small\n",
               static_cast<int>(kCallIdLength + 1));
    return;
  }
  const std::size_t digits = kCallIdLength - fixedLength;
  for (std::size_t i = 0; i < digits; ++i) out.data()[i] = randomHexDigit();
  out.data()[digits] = '\0';
  (void)out.append(user);
  (void)out.append("@");
  (void)out.append(pcSipUAIP);
}

void MySip::fillNewSessionID(int& out) {
  out = std::rand();
}

void MySip::drawBranch(sPhone& leg) {
  FixedText<41> branch;
  fillNewBranchData(branch);
  leg.pcBranch.assignCut(branch);
}

void MySip::drawLocalTag(sPhone& leg) {
  FixedText<17> tag;
  fillNewTagData(tag);
  leg.pcLocalTag.assignCut(tag);
}

void MySip::drawCallID(int slot) {
  FixedText<60> callId;
  fillNewCallID(phone(slot).pcUserName, callId);
  setCallID(slot, callId);
}
