// The signals and the datagram that steer the running process.
#include <arpa/inet.h>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <netinet/in.h>
#include <set>
#include <sstream>
#include <sys/socket.h>
#include <time.h>

#include "app/config/Settings.h"
#include "common/Handle.h"
#include "tools/quorvelctl/Context.h"
#include "tools/quorvelctl/LogFile.h"

namespace {

// A second interrupt within five seconds makes the process hang up running calls.
constexpr int kSecondInterruptAfterMilliseconds = 300;
// It takes two seconds to say good-bye to everybody.
constexpr int kSecondsToEnd = 10;
// What the log may grow by while a reload is waited for, with SipDebug=1 and calls up.
constexpr std::size_t kMostOfReload = 4 << 20;

void pauseMilliseconds(long milliseconds) {
  const timespec pause{milliseconds / 1000, milliseconds % 1000 * 1'000'000};
  nanosleep(&pause, nullptr);
}

int cannotSignal(pid_t process) {
  return fail("process %d cannot be signalled: %s", process,
              advice("/proc/" + std::to_string(process)).c_str());
}

bool drain(pid_t process) {
  return waitUntilHandled(process, SIGUSR2) && kill(process, SIGUSR2) == 0;
}

std::string callsText(int calls) {
  return std::to_string(calls) + (calls == 1 ? " call is" : " calls are");
}

// Seconds from the command's argument, or `otherwise`; nothing when it is no number.
std::optional<int> secondsOf(const sContext& context, int otherwise) {
  if (context.words.empty()) return otherwise;
  const std::string& word = context.words[0];
  int seconds = 0;
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), seconds);
  if (error != std::errc{} || end != word.data() + word.size() || seconds < 0) return std::nullopt;
  return seconds;
}

int noSeconds(const sContext& context) {
  return fail("%s is no number of seconds", context.words[0].c_str()), kUsageError;
}

// Waits until no call is up. The number of calls that are left, or nothing when the process does not say it
// twice in a row: then it would not end its calls either.
std::optional<int> waitForCalls(const sContext& context, pid_t process, int seconds) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  for (bool isSilent = false;;) {
    const std::optional<int> calls = askActiveCalls(context, process);
    if (calls == 0 || findProcess(context) != process) return 0;
    if (std::chrono::steady_clock::now() >= end || (!calls && isSilent)) return calls;
    isSilent = !calls;
    if (!context.bJson)
      std::fprintf(stderr, "%s up\n", calls ? callsText(*calls).c_str() : "unknown how many calls are");
    pauseMilliseconds(1000);
  }
}

bool endsWithin(const sContext& context, pid_t process, int seconds) {
  for (int tenth = 0; tenth < 10 * seconds; ++tenth) {
    if (findProcess(context) != process) return true;
    pauseMilliseconds(100);
  }
  return false;
}

std::optional<sockaddr_in> signallingAddress() {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(iSipUAPort));
  if (inet_pton(AF_INET, pcSipUAIPForBinding.c_str(), &address.sin_addr) != 1) return std::nullopt;
  return address;
}

bool sendDatagram(const std::string& text) {
  const auto address = signallingAddress();
  const FileDescriptor socket(::socket(AF_INET, SOCK_DGRAM, 0));
  return address && socket.isOpen() &&
         sendto(socket.get(), text.data(), text.size(), 0, reinterpret_cast<const sockaddr*>(&*address),
                sizeof *address) == static_cast<ssize_t>(text.size());
}

// The log tells that the process begins to read, and then only what is wrong.
int waitForReload(const sContext& context, const std::string& path, std::uint64_t before) {
  const std::string begun = "Going to reload configuration file \"" + path + "\"";
  for (int tenth = 0; tenth < 30; ++tenth) {
    pauseMilliseconds(100);
    const std::size_t at = readFileFrom(logPath(context), before, kMostOfReload).find(begun);
    if (at == std::string::npos) continue;
    pauseMilliseconds(500);
    const std::string after = readFileFrom(logPath(context), before, kMostOfReload);
    if (after.find("problem reading parameters from", at) == std::string::npos) return kYes;
    return fail("the process could not read the file: see its log");
  }
  return fail("the process was told to reload, but its log does not say that it did");
}

// What the reload has not changed.
void sayPending(const sContext& context, pid_t process, const std::string& path) {
  const sPending pending = pendingOf(context, process);
  if (context.bJson)
    std::printf("{\"reloaded\": %s, \"waits_for_restart\": %s}\n", jsonText(path).c_str(),
                pendingJson(pending).c_str());
  else if (pending.bAny)
    std::printf("reloaded, but %s\n", pendingText(context, pending).c_str());
}

// Has the process end; 0 or what went wrong, said.
int interrupt(const sContext& context, pid_t process) {
  if (findProcess(context) != process) return kYes;  // ended by itself meanwhile
  if (kill(process, SIGINT) != 0) return cannotSignal(process);
  pauseMilliseconds(kSecondInterruptAfterMilliseconds);
  if (findProcess(context) == process)
    (void)kill(process, SIGINT);  // an accepted first one makes it ignore the second
  if (endsWithin(context, process, kSecondsToEnd)) return kYes;
  return fail(
      "process %d was told to end, but is still there after %d seconds; SIGKILL ends it and its calls",
      process, kSecondsToEnd);
}

int nothingToStop(const sContext& context) {
  if (context.bJson)
    std::puts("{\"stopped\": false, \"running\": false}");
  else
    std::printf("%s is not running: nothing to stop\n", nameOf(context).c_str());
  return kYes;
}

}  // namespace

bool ownsPort(pid_t process, int port, const std::optional<sockaddr_in>& address) {
  const std::string directory = "/proc/" + std::to_string(process);
  std::istringstream sockets(readFile(directory + "/net/udp").value_or(""));
  std::set<std::string> nodes;  // of sockets with that port
  for (std::string line; std::getline(sockets, line);) {
    unsigned at = 0, number = 0;
    unsigned long node = 0;
    if (std::sscanf(line.c_str(), "%*d: %8X:%4X %*s %*s %*s %*s %*s %*s %*s %lu", &at, &number, &node) == 3 &&
        number == static_cast<unsigned>(port) && (!address || at == address->sin_addr.s_addr))
      nodes.insert("socket:[" + std::to_string(node) + "]");
  }
  std::error_code denied;
  for (const auto& entry : std::filesystem::directory_iterator(directory + "/fd", denied)) {
    std::error_code gone;
    if (nodes.contains(std::filesystem::read_symlink(entry.path(), gone).string())) return true;
  }
  return denied && !nodes.empty();  // not ours to look at: port and address have to do
}

int drainInstance(const sContext& context) {
  const auto seconds = secondsOf(context, 0);
  if (!seconds) return noSeconds(context);
  const auto process = findProcess(context);
  if (!process) return noProcess(context);
  if (!drain(*process)) return cannotSignal(*process);
  const std::optional<int> left = waitForCalls(context, *process, *seconds);
  if (!left) return fail("new calls are refused, but the process does not say how many calls are up");
  const bool isLate = *left != 0 && *seconds > 0;
  if (context.bJson)
    std::printf("{\"draining\": true, \"calls\": %d}\n", *left);
  else if (isLate)
    return fail("%s still up", callsText(*left).c_str());
  return isLate ? kNo : kYes;
}

int reloadInstance(const sContext& context) {
  const auto process = findProcess(context);
  if (!process) return noProcess(context);
  // The process keeps what it has read before a bad line; so it is not shown a file that has one.
  if (!loadConfiguration(context)) return fail("%s; nothing was reloaded", loadFailure(context).c_str());
  const auto address = signallingAddress();
  if (!address || !ownsPort(*process, iSipUAPort, address))
    return fail("the process does not listen on %s:%d: addresses and ports change by a restart only",
                pcSipUAIPForBinding.c_str(), iSipUAPort);
  const std::string path = std::filesystem::absolute(context.configuration).string();
  const std::uint64_t before = sizeOfFile(logPath(context));
  if (!sendDatagram("800-QUORVEL-RELOAD " + path + "\r\n"))
    return fail("no datagram can be sent to %s:%d", pcSipUAIPForBinding.c_str(), iSipUAPort);
  const int status = waitForReload(context, path, before);
  if (status == kYes) sayPending(context, *process, path);
  return status;
}

// A service manager stops also what has ended by itself, so that is no failure.
int stopInstance(const sContext& context) {
  const auto seconds = secondsOf(context, 0);
  if (!seconds) return noSeconds(context);
  if (const std::string hidden = hiddenLock(); !hidden.empty()) return fail("%s", hidden.c_str());
  const auto process = findProcess(context);
  if (!process) return nothingToStop(context);
  if (*seconds > 0) {
    if (!drain(*process)) return cannotSignal(*process);
    if (!waitForCalls(context, *process, *seconds))
      std::fputs("the process does not say how many calls are up; it is told to end now\n", stderr);
  }
  if (const int status = interrupt(context, *process); status != kYes) return status;
  if (context.bJson) std::printf("{\"stopped\": true, \"process\": %d}\n", *process);
  return kYes;
}
