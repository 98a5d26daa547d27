#include "sip/HostNames.h"

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <exception>
#include <mutex>
#include <netdb.h>
#include <thread>

#include "app/config/Log.h"
#include "common/Clock.h"
#include "common/FaultStack.h"

namespace {

constexpr const char* kFunction = "HostNames::find";

// A new thread takes over the mask of the one that starts it.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    const sigset_t signals = signalsBlockedInThreads();
    pthread_sigmask(SIG_BLOCK, &signals, &before);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t before{};
};

}  // namespace

struct HostNames::sRunning {
  FixedText<kHostCapacity> pcName;
  std::mutex mutex;
  std::condition_variable finished;
  bool bFinished = false;
  int iError = 0;
  FixedText<16> pcIP;  // empty: no address
};

bool HostNames::find(std::string_view name, FixedText<16>& ip) {
  for (auto& place : psRunning) takeResult(place, 0);
  const sEntry* entry = findEntry(name);
  // An address stays in use while it is asked for again: a dialog must not change its road every minute.
  if (entry == nullptr || !isFresh(*entry)) {
    std::shared_ptr<sRunning>* const place = begin(name);
    if (place != nullptr && (entry == nullptr || entry->pcIP.empty())) {
      waitFor(*place);
      entry = findEntry(name);
    }
  }
  if (entry == nullptr) {
    Log::warning(kFunction, "address of host %.*s is not known yet\n", static_cast<int>(name.size()),
                 name.data());
    return false;
  }
  if (entry->pcIP.empty()) return false;
  ip = entry->pcIP;
  return true;
}

HostNames::sEntry* HostNames::findEntry(std::string_view name) {
  for (sEntry& entry : psEntries) {
    if (entry.pcName == name) return &entry;
  }
  return nullptr;
}

HostNames::sEntry& HostNames::entryFor(std::string_view name) {
  if (sEntry* known = findEntry(name)) return *known;
  sEntry& oldest = psEntries[uNextEntry];
  uNextEntry = (uNextEntry + 1) % kEntries;
  oldest = {};
  (void)oldest.pcName.assign(name);  // it has been looked up under this name, so it fits
  return oldest;
}

bool HostNames::isFresh(const sEntry& entry) {
  return Clock::monotonicNanoseconds() < entry.iValidUntil;
}

// Where the lookup runs. Null when it runs already, too many others do, or the name cannot be one.
std::shared_ptr<HostNames::sRunning>* HostNames::begin(std::string_view name) {
  std::shared_ptr<sRunning>* place = nullptr;
  for (auto& each : psRunning) {
    if (each != nullptr && each->pcName == name) return nullptr;
    if (each == nullptr && place == nullptr) place = &each;
  }
  if (place == nullptr) return nullptr;
  const SignalsBlocked blocked;
  try {
    auto next = std::make_shared<sRunning>();
    if (!next->pcName.assign(name)) return nullptr;
    std::thread([next, how = lookup] {
      FixedText<16> ip;
      const int error = how(next->pcName.c_str(), ip);
      const std::lock_guard lock(next->mutex);
      next->iError = error;
      if (error == 0) next->pcIP = ip;
      next->bFinished = true;
      next->finished.notify_one();
    }).detach();
    *place = std::move(next);
    return place;
  } catch (const std::exception& error) {  // no thread, or no memory for it
    Log::error(kFunction, "unable to look up host %.*s - %s\n", static_cast<int>(name.size()), name.data(),
               error.what());
    return nullptr;
  }
}

void HostNames::waitFor(std::shared_ptr<sRunning>& place) {
  const std::int64_t begin = Clock::monotonicNanoseconds();
  if (begin - iWaitingSince >= kSecond) {
    iWaitingSince = begin;
    iWaited = 0;
  }
  takeResult(place, std::max<std::int64_t>(kLongestWait - iWaited, 0));
  iWaited += Clock::monotonicNanoseconds() - begin;
}

void HostNames::takeResult(std::shared_ptr<sRunning>& place, std::int64_t wait) {
  if (place == nullptr) return;
  {
    std::unique_lock lock(place->mutex);
    if (!place->finished.wait_for(lock, std::chrono::nanoseconds(wait),
                                  [&place] { return place->bFinished; }))
      return;
  }
  sEntry& entry = entryFor(place->pcName.view());
  if (place->iError == 0)
    entry.pcIP = place->pcIP;
  else  // a name service that is away takes nothing back
    Log::error("MyConfiguration::validateAndGetDottedIPAddress",
               "unable to locate host (%s). Error: %d - %s\n", place->pcName.c_str(), place->iError,
               gai_strerror(place->iError));
  entry.iValidUntil = Clock::monotonicNanoseconds() + (entry.pcIP.empty() ? kUnknownFor : kKnownFor);
  place.reset();
}

int HostNames::askSystem(const char* name, FixedText<16>& ip) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* found = nullptr;
  const int error = getaddrinfo(name, nullptr, &hints, &found);
  if (error != 0) return error;
  sockaddr_in address{};
  std::memcpy(&address, found->ai_addr, sizeof address);
  freeaddrinfo(found);
  (void)inet_ntop(AF_INET, &address.sin_addr, ip.data(), ip.maxLength() + 1);  // 16 bytes hold any address
  return 0;
}
