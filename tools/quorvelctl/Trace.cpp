// The SIP messages of a call, a registration or a subscription, both legs joined, out of a log that was
// written with SipDebug=1.
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <set>
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <utility>

#include "app/config/Log.h"
#include "common/Handle.h"
#include "sip/MySip.h"
#include "tools/quorvelctl/Context.h"
#include "tools/quorvelctl/Message.h"

namespace {

struct sTraced {
  std::string time;     // as the log gives it
  bool bSent = false;   // by us
  std::string address;  // the other end's
  std::string text;
  std::string callId;
};

constexpr std::string_view kGot = "*** Got from ";
constexpr std::string_view kSending = "*** Sending to ";

// One log record begins with a line of time and a line " LEVEL in "; the message goes on to the next such
// pair.
bool isRecordHead(std::string_view line) {
  return line.starts_with(" INFO in ") || line.starts_with(" WARNING in ") || line.starts_with(" ERROR in ");
}

bool isTime(const std::string& line) {
  tm unused{};
  const char* const end = strptime(line.c_str(), "%a %b %e %H:%M:%S %Y", &unused);
  return (end != nullptr && std::string_view(end) == "\n") || line == "time unknown\n";
}

bool takeHead(std::string_view head, sTraced& message) {
  for (const auto& [mark, sent] : {std::pair(kGot, false), std::pair(kSending, true)}) {
    const std::size_t at = head.find(mark);
    if (at == std::string_view::npos) continue;
    std::string_view address = head.substr(at + mark.size());
    while (!address.empty() && (address.back() == '\n' || address.back() == ':')) address.remove_suffix(1);
    message.address = address;
    message.bSent = sent;
    return true;
  }
  return false;
}

// Takes the log line by line and hands over each message; no more than one is held.
class MessageReader {
 public:
  explicit MessageReader(std::function<void(const sTraced&)> take) : use(std::move(take)) {}

  void line(std::string_view text) {
    if (isRecordHead(text)) {
      if (!isTime(last)) takeLast();
      finish();
      isMessage = takeHead(text, message);
      message.time = last.substr(0, last.find_last_not_of('\n') + 1);
    } else {
      takeLast();
    }
    last = isRecordHead(text) ? "" : text;
  }
  void end() {
    takeLast();
    finish();
  }

 private:
  void takeLast() {
    if (isMessage) message.text += last;
    last.clear();
  }
  void finish() {
    if (!isMessage) return;
    message.callId = MySip::extractToken("Call-ID:", 300, message.text);
    if (message.callId.empty()) message.callId = MySip::extractToken("\ni:", 300, message.text);
    takeRecords();
    use(message);
    message = {};
    isMessage = false;
  }

  std::function<void(const sTraced&)> use;
  bool isMessage = false;
  sTraced message;
  std::string last;  // a line that may be the next record's time
};

// The file, or what it holds when it is one that logrotate has compressed, and the program that says it: 0 if
// none is needed, -1 if it cannot be started.
File openLog(const std::string& path, pid_t& child) {
  if (!path.ends_with(".gz")) return File(std::fopen(path.c_str(), "re"));
  int ends[2];
  if (access(path.c_str(), R_OK) != 0 || pipe2(ends, O_CLOEXEC) != 0) return {};
  FileDescriptor out(ends[0]);
  const FileDescriptor in(ends[1]);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in.get(), STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  std::string words[] = {"gzip", "-dc", "--", path};
  char* const arguments[] = {words[0].data(), words[1].data(), words[2].data(), words[3].data(), nullptr};
  const bool isRunning = posix_spawnp(&child, "gzip", &actions, nullptr, arguments, environ) == 0;
  posix_spawn_file_actions_destroy(&actions);
  if (!isRunning) child = -1;
  return isRunning ? File(fdopen(out.release(), "r")) : File();
}

// Waits for its end. False: not all that the file once held was said.
bool isUnpacked(pid_t child) {
  int status = 0;
  while (child > 0 && waitpid(child, &status, 0) < 0)
    if (errno != EINTR) return false;
  return child > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// False: none of the files can be read. Which of them hold less than they should is said if that is wished.
bool forEachMessage(const std::vector<std::string>& paths, bool bSay,
                    const std::function<void(const sTraced&)>& use) {
  bool isAnyRead = false;
  MessageReader reader(use);
  for (const std::string& path : paths) {
    pid_t child = 0;
    File file = openLog(path, child);
    char* line = nullptr;
    std::size_t capacity = 0;
    isAnyRead = isAnyRead || file;
    for (ssize_t length = 0; file && (length = getline(&line, &capacity, file.get())) >= 0;)
      reader.line({line, static_cast<std::size_t>(length)});
    std::free(line);
    reader.end();
    file.reset();
    if (child != 0 && !isUnpacked(child) && bSay)
      std::fprintf(stderr, "%s cannot be unpacked to its end\n", shownText(path).c_str());
  }
  return isAnyRead;
}

// The method of a request that Quorvel passes on under a Call-ID of its own; empty for anything else.
std::string_view relayedMethod(const sTraced& message) {
  for (const std::string_view method : {"INVITE ", "REGISTER ", "SUBSCRIBE "})
    if (message.text.starts_with(method)) return method;
  return "";
}

// Which Call-IDs are legs of one call. A message is handled to its end before the next is read: what is sent
// first after a request was received, and is such a request itself, is the other leg's; and an INVITE that is
// sent after one was refused or redirected, and that acknowledged, tries another destination. Anything sent
// later, as Quorvel's own REGISTER is, is not.
class Legs {
 public:
  void add(const sTraced& message) {
    if (!message.bSent) {
      const bool isFailure = message.text.starts_with("SIP/2.0 ") && message.text.compare(8, 1, "3") >= 0 &&
                             findFolded(message.text, " INVITE\r\n", 0) != std::string_view::npos;
      method = isFailure ? "INVITE " : relayedMethod(message);
      received = message.callId;
    } else if (!method.empty() && method == relayedMethod(message)) {
      pairs.emplace_back(received, message.callId);
      method = "";
    } else if (!message.text.starts_with("ACK ")) {
      method = "";
    }
  }
  std::set<std::string> of(std::set<std::string> wanted) const {
    const auto join = [&](const auto& pair) {
      if (wanted.contains(pair.first) || wanted.contains(pair.second))
        wanted.insert({pair.first, pair.second});
    };
    std::for_each(pairs.rbegin(), pairs.rend(), join);  // where it came from,
    std::for_each(pairs.begin(), pairs.end(), join);    // and all that came of that
    return wanted;
  }

 private:
  std::string_view method;  // that may go on under another Call-ID
  std::string received;
  std::vector<std::pair<std::string, std::string>> pairs;
};

// Does the phone call, register, or get the call?
bool isOfPhone(const sTraced& message, const std::string& name) {
  for (const std::string_view header : {"\nFrom:", "\nTo:", "\nf:", "\nt:"}) {
    const std::size_t at = findFolded(message.text, header, 0);
    if (at == std::string_view::npos) continue;
    const std::string_view line =
        std::string_view(message.text).substr(at, message.text.find('\n', at + 1) - at);
    if (findFolded(line, "sip:" + name + "@", 0) != std::string_view::npos) return true;
  }
  return false;
}

// How long the body is by its header, if that says so; a number too large to be read is longer than any body.
std::optional<std::size_t> contentLength(std::string_view head) {
  for (const std::string_view name : {"\nContent-Length", "\nl"})
    for (std::size_t at = 0; (at = findFolded(head, name, at)) != std::string_view::npos;) {
      at = std::min(head.find_first_not_of(" \t", at + name.size()), head.size());
      if (head.substr(at, 1) != ":") continue;
      const std::size_t digits = std::min(head.find_first_not_of(" \t", at + 1), head.size());
      std::size_t length = SIZE_MAX;
      const auto read = std::from_chars(head.data() + digits, head.data() + head.size(), length);
      if (read.ec != std::errc::invalid_argument) return length;
    }
  return std::nullopt;
}

// Does the log lack the message's end? Whatever a record was cut to, a line feed of its own follows.
bool isCut(const sTraced& message) {
  constexpr std::string_view kEmptyLine = "\r\n\r\n";
  const std::string_view text = message.text;
  const std::size_t headEnd = text.find(kEmptyLine);
  if (headEnd == std::string_view::npos) return true;
  if (const auto length = contentLength(text.substr(0, headEnd)))
    return text.size() - headEnd - kEmptyLine.size() <= *length;
  const std::size_t head = (message.bSent ? kSending : kGot).size() + message.address.size() + 2;  // ":\n"
  return head + text.size() - 1 >= static_cast<std::size_t>(Log::kMaxMessageLength);
}

void print(const sContext& context, const sTraced& message, bool first) {
  std::string text = masked(message.text);
  const bool bCut = isCut(message);
  if (!context.bJson) {
    const std::string head = message.time + (message.bSent ? " -> " : " <- ") + message.address;
    if (bCut) text += std::string(text.ends_with('\n') ? "" : "\n") + "(the log holds no more of it)\n";
    std::printf("%s\n%s\n", shownText(head).c_str(), shownText(text).c_str());
    return;
  }
  const auto word = [](bool is) { return is ? "true" : "false"; };
  std::printf(
      "%s\n  {\"time\": %s, \"sent\": %s, \"address\": %s, \"call_id\": %s, \"cut\": %s, \"text\": %s}",
      first ? "" : ",", jsonText(message.time).c_str(), word(message.bSent),
      jsonText(message.address).c_str(), jsonText(message.callId).c_str(), word(bCut),
      jsonText(text).c_str());
}

struct sWish {
  std::string callId, phone;
  std::vector<std::string> logs{};  // instead of the instance's
};

std::optional<sWish> readWish(const std::vector<std::string>& words) {
  sWish wish;
  for (std::size_t i = 0; i < words.size(); ++i) {
    const bool isOption = words[i] == "--phone" || words[i] == "--log";
    if (isOption && i + 1 == words.size()) return std::nullopt;
    if (words[i] == "--log")
      wish.logs.push_back(words[++i]);
    else if (!wish.callId.empty() || !wish.phone.empty())
      return std::nullopt;
    else
      (isOption ? wish.phone : wish.callId) = words[isOption ? ++i : i];
  }
  return wish.callId.empty() && wish.phone.empty() ? std::nullopt : std::optional(wish);
}

int nothingFound(const std::vector<std::string>& paths, const sWish& wish) {
  const std::string older = std::filesystem::path(paths.front()).parent_path().string();
  const std::string more = "; older logs are in " + older + ": name one with --log, also compressed";
  return fail("%s has no message of that %s; messages are logged with SipDebug=1%s", paths.back().c_str(),
              wish.callId.empty() ? "phone" : "Call-ID", wish.logs.empty() ? more.c_str() : "");
}

}  // namespace

int traceCall(const sContext& context) {
  const auto wish = readWish(context.words);
  if (!wish) return fail("trace takes a Call-ID, or --phone and the name of a phone"), kUsageError;
  const std::vector<std::string> paths = wish->logs.empty() ? logPaths(context) : wish->logs;
  std::set<std::string> wanted = {wish->callId};
  Legs all;
  const bool isRead = forEachMessage(paths, true, [&](const sTraced& message) {
    all.add(message);
    if (!wish->phone.empty() && isOfPhone(message, wish->phone)) wanted.insert(message.callId);
  });
  if (!isRead && access(paths.back().c_str(), R_OK) != 0)
    return fail("%s %s", paths.back().c_str(),
                errno == EACCES ? ("may not be read: " + advice(paths.back())).c_str() : "cannot be read");
  wanted.erase("");
  const std::set<std::string> legs = all.of(std::move(wanted));
  std::size_t shown = 0;
  const auto show = [&](const sTraced& message) {
    if (!legs.contains(message.callId)) return;
    if (context.bJson && shown == 0) std::printf("[");
    print(context, message, shown++ == 0);
  };
  if (!legs.empty()) (void)forEachMessage(paths, false, show);
  if (shown == 0) return nothingFound(paths, *wish);
  if (context.bJson) std::puts("]");
  return kYes;
}
