#include "sip/HostNames.h"

#include <arpa/inet.h>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <mutex>
#include <netdb.h>
#include <system_error>
#include <thread>

#include "app/config/Log.h"
#include "common/Clock.h"

namespace {

constexpr const char* kFunction = "HostNames::find";

// Signals are for the main thread; a new thread takes over the mask of the one that starts it.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP}) sigdelset(&all, fault);
    pthread_sigmask(SIG_BLOCK, &all, &before);
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
  FixedText<16> pcIP;  // empty: no address
};

bool HostNames::find(std::string_view name, FixedText<16>& ip) {
  takeResult(std::chrono::milliseconds(0));
  const sEntry* entry = findEntry(name);
  // An address stays in use while it is asked for again: a dialog must not change its road every minute.
  if ((entry == nullptr || !isFresh(*entry)) && begin(name) && (entry == nullptr || entry->pcIP.empty())) {
    takeResult(kLongestWait);
    entry = findEntry(name);
  }
  if (entry != nullptr && !entry->pcIP.empty()) {
    ip = entry->pcIP;
    return true;
  }
  Log::warning(kFunction, "address of host %.*s is %s, the proxy is used instead\n",
               static_cast<int>(name.size()), name.data(), entry != nullptr ? "unknown" : "not known yet");
  return false;
}

HostNames::sEntry* HostNames::findEntry(std::string_view name) {
  for (sEntry& entry : psEntries) {
    if (entry.pcName == name) return &entry;
  }
  return nullptr;
}

bool HostNames::isFresh(const sEntry& entry) {
  return Clock::monotonicNanoseconds() < entry.iValidUntil;
}

// False when another lookup is still waiting for its answer, or the name cannot be one.
bool HostNames::begin(std::string_view name) {
  auto next = std::make_shared<sRunning>();
  if (running != nullptr || !next->pcName.assign(name)) return false;
  const SignalsBlocked blocked;
  try {
    std::thread([next, how = lookup] {
      FixedText<16> ip;
      if (!how(next->pcName.c_str(), ip)) ip.clear();
      const std::lock_guard lock(next->mutex);
      next->pcIP = ip;
      next->bFinished = true;
      next->finished.notify_one();
    }).detach();
  } catch (const std::system_error& error) {
    Log::error(kFunction, "unable to look up host %s - %s\n", next->pcName.c_str(), error.what());
    return false;
  }
  running = next;
  return true;
}

void HostNames::takeResult(std::chrono::milliseconds wait) {
  if (running == nullptr) return;
  {
    std::unique_lock lock(running->mutex);
    if (!running->finished.wait_for(lock, wait, [this] { return running->bFinished; })) return;
  }
  sEntry* known = findEntry(running->pcName);
  if (known == nullptr) {
    known = &psEntries[uNextEntry];
    uNextEntry = (uNextEntry + 1) % kEntries;
    *known = {};
    known->pcName = running->pcName;
  }
  sEntry& entry = *known;
  if (!running->pcIP.empty()) entry.pcIP = running->pcIP;  // a name service that is away takes nothing back
  entry.iValidUntil = Clock::monotonicNanoseconds() + (entry.pcIP.empty() ? kUnknownFor : kKnownFor);
  running.reset();
}

bool HostNames::askSystem(const char* name, FixedText<16>& ip) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(name, nullptr, &hints, &found) != 0) return false;
  sockaddr_in address{};
  std::memcpy(&address, found->ai_addr, sizeof address);
  freeaddrinfo(found);
  return inet_ntop(AF_INET, &address.sin_addr, ip.data(), ip.maxLength() + 1) != nullptr;
}
