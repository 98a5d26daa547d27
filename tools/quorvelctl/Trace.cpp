// The SIP messages of a call, a registration or a subscription, both legs joined, out of a log that was
// written with SipDebug=1.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <set>
#include <unistd.h>
#include <utility>

#include "sip/MySip.h"
#include "tools/quorvelctl/Context.h"

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

std::vector<std::string_view> linesOf(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size() - 1);
    lines.push_back(text.substr(0, end + 1));
    text.remove_prefix(end + 1);
  }
  return lines;
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

std::vector<sTraced> messagesOf(std::string_view log) {
  const std::vector<std::string_view> lines = linesOf(log);
  std::vector<sTraced> messages;
  for (std::size_t i = 1; i < lines.size(); ++i) {
    if (!isRecordHead(lines[i])) continue;
    sTraced message;
    if (!takeHead(lines[i], message)) continue;
    message.time = lines[i - 1].substr(0, lines[i - 1].find_last_not_of('\n') + 1);
    std::size_t end = i + 1;
    while (end < lines.size() && !(end + 1 < lines.size() && isRecordHead(lines[end + 1]))) ++end;
    for (std::size_t line = i + 1; line < end; ++line) message.text += lines[line];
    message.callId = MySip::extractToken("Call-ID:", 300, message.text);
    if (message.callId.empty()) message.callId = MySip::extractToken("\ni:", 300, message.text);
    messages.push_back(std::move(message));
  }
  return messages;
}

// The method of a request that Quorvel passes on under a Call-ID of its own; empty for anything else.
std::string_view relayedMethod(const sTraced& message) {
  for (const std::string_view method : {"INVITE ", "REGISTER ", "SUBSCRIBE "})
    if (message.text.starts_with(method)) return method;
  return "";
}

// A message is handled to its end before the next is read: what is sent first after a request was received,
// and is such a request itself, is the other leg's. Anything sent later, as Quorvel's own REGISTER is, is
// not.
std::set<std::string> legsOf(const std::vector<sTraced>& messages, std::set<std::string> legs) {
  const sTraced* received = nullptr;
  for (const sTraced& message : messages) {
    const sTraced* const before = std::exchange(received, message.bSent ? nullptr : &message);
    if (!message.bSent || before == nullptr) continue;
    const std::string_view method = relayedMethod(message);
    if (method.empty() || method != relayedMethod(*before)) continue;
    if (legs.contains(message.callId) || legs.contains(before->callId))
      legs.insert({message.callId, before->callId});
  }
  return legs;
}

bool equalFolded(char a, char b) {
  return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
}

std::size_t findFolded(std::string_view text, std::string_view what, std::size_t from) {
  const auto begin = text.begin() + static_cast<std::ptrdiff_t>(std::min(from, text.size()));
  const auto found = std::search(begin, text.end(), what.begin(), what.end(), equalFolded);
  return found == text.end() ? std::string_view::npos : static_cast<std::size_t>(found - text.begin());
}

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

// Where a header's value ends: at a line end that no blank follows (RFC 3261, 7.3.1).
std::size_t endOfValue(const std::string& text, std::size_t from) {
  std::size_t end = text.find('\n', from);
  while (end != std::string::npos && end + 1 < text.size() && (text[end + 1] == ' ' || text[end + 1] == '\t'))
    end = text.find('\n', end + 1);
  if (end == std::string::npos) return text.size();
  return end > from && text[end - 1] == '\r' ? end - 1 : end;
}

// Answers to a challenge are good for a replay and for guessing the password.
std::string masked(std::string text) {
  constexpr std::string_view kName = "Authorization", kMask = " (masked)";
  for (std::size_t at = 0; (at = findFolded(text, kName, at)) != std::string::npos;) {
    at = text.find_first_not_of(" \t", at + kName.size());
    if (at == std::string::npos || text[at] != ':') continue;
    text.replace(at + 1, endOfValue(text, at) - at - 1, kMask);
  }
  return text;
}

void print(const sContext& context, const sTraced& message, bool first) {
  const std::string text = masked(message.text);
  if (!context.bJson) {
    std::printf("%s %s %s\n%s\n", message.time.c_str(), message.bSent ? "->" : "<-", message.address.c_str(),
                shownText(text).c_str());
    return;
  }
  std::printf("%s\n  {\"time\": %s, \"sent\": %s, \"address\": %s, \"call_id\": %s, \"text\": %s}",
              first ? "" : ",", jsonText(message.time).c_str(), message.bSent ? "true" : "false",
              jsonText(message.address).c_str(), jsonText(message.callId).c_str(), jsonText(text).c_str());
}

}  // namespace

int traceCall(const sContext& context) {
  const bool isPhone = context.words[0] == "--phone";
  if (isPhone != (context.words.size() == 2))
    return fail("trace takes a Call-ID, or --phone and the name of a phone"), kUsageError;
  const std::vector<std::string> paths = logPaths(context);
  std::string log;
  for (const std::string& path : paths) log += readFile(path).value_or("");
  if (log.empty() && access(paths.back().c_str(), R_OK) != 0)
    return fail("%s %s", paths.back().c_str(),
                errno == EACCES ? ("may not be read: " + advice(paths.back())).c_str() : "cannot be read");
  std::vector<sTraced> messages = messagesOf(log);
  takeRecords();
  std::set<std::string> wanted;
  if (!isPhone) wanted = {context.words[0]};
  for (const sTraced& message : messages)
    if (isPhone && isOfPhone(message, context.words[1])) wanted.insert(message.callId);
  const std::set<std::string> legs = legsOf(messages, std::move(wanted));
  std::erase_if(messages, [&](const sTraced& message) { return !legs.contains(message.callId); });
  if (messages.empty())
    return fail("%s has no message of that %s; messages are logged with SipDebug=1", paths.back().c_str(),
                isPhone ? "phone" : "Call-ID");
  if (context.bJson) std::printf("[");
  for (const sTraced& message : messages) print(context, message, &message == &messages.front());
  if (context.bJson) std::puts("]");
  return kYes;
}
