// The SIP messages of one call, both legs joined, out of a log that was written with SipDebug=1.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <set>

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

bool isInvite(const sTraced& message) {
  return message.text.starts_with("INVITE ");
}

// A message is handled to its end before the next is read: the INVITE that is sent after one was received,
// before anything else is, is the other leg's.
std::set<std::string> legsOf(const std::vector<sTraced>& messages, const std::string& callId) {
  std::set<std::string> legs = {callId};
  const sTraced* received = nullptr;
  for (const sTraced& message : messages) {
    if (!message.bSent) received = &message;
    if (!message.bSent || received == nullptr || !isInvite(*received) || !isInvite(message)) continue;
    if (legs.contains(message.callId) || legs.contains(received->callId))
      legs.insert({message.callId, received->callId});
  }
  return legs;
}

// Answers to a challenge are good for a replay and for guessing the password.
std::string masked(std::string text) {
  for (const std::string_view header : {"Authorization:"})
    for (std::size_t at = 0, found = 0;
         (found = MySip::stristr(std::string_view(text).substr(at), header)) != std::string_view::npos;) {
      const std::size_t start = at + found + header.size();
      const std::size_t end = std::min(text.find('\r', start), text.find('\n', start));
      text.replace(start, (end == std::string::npos ? text.size() : end) - start, " (masked)");
      at = start + 1;
    }
  return text;
}

void print(const sContext& context, const sTraced& message, bool first) {
  const std::string text = masked(message.text);
  if (!context.bJson) {
    std::printf("%s %s %s\n%s\n", message.time.c_str(), message.bSent ? "->" : "<-", message.address.c_str(),
                text.c_str());
    return;
  }
  std::printf("%s\n  {\"time\": %s, \"sent\": %s, \"address\": %s, \"call_id\": %s, \"text\": %s}",
              first ? "" : ",", jsonText(message.time).c_str(), message.bSent ? "true" : "false",
              jsonText(message.address).c_str(), jsonText(message.callId).c_str(), jsonText(text).c_str());
}

}  // namespace

int traceCall(const sContext& context) {
  const auto log = readFile(logPath(context));
  if (!log) return fail("%s cannot be read", logPath(context).c_str());
  const std::vector<sTraced> messages = messagesOf(*log);
  takeRecords();
  const std::set<std::string> legs = legsOf(messages, context.words[0]);
  bool found = false;
  if (context.bJson) std::printf("[");
  for (const sTraced& message : messages) {
    if (!legs.contains(message.callId)) continue;
    print(context, message, !found);
    found = true;
  }
  if (context.bJson) std::puts("]");
  return found ? kYes
               : fail("%s has no message of that Call-ID; messages are logged with SipDebug=1",
                      logPath(context).c_str());
}
