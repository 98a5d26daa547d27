// The SIP text of the load generator's two phones: building the five requests and answers of a call, and
// reading as much of what comes back as a correct user agent needs (RFC 3261, sections 8.1, 8.2.6 and 12).
// Every call has a number that travels as the user part of the To URI, "c<number>", through any proxy or
// back-to-back user agent that leaves the dialled name alone; so both phones know their call without a
// search.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace load_messages {

// What stays the same for all calls of a run.
struct Run {
  std::string name;  // makes Call-IDs, tags and branches unique between runs
  int callerPort = 28100;
  int calleePort = 0;
  std::string offeredFormats{"0"};   // payload types of the caller's m-line, for example "0 8"
  std::string answeredFormats{"0"};  // of the callee's
};

// What the caller learns from the answer to its INVITE.
struct Dialog {
  std::string to;      // To value with the callee's tag
  std::string target;  // request-URI: the answer's Contact
  std::string routes;  // whole Route lines, in the order to send them
};

// Value of the first header line with that name, or empty.
std::string_view header(std::string_view message, std::string_view name);
// All header lines with that name, in order, each with its line end.
std::string headerLines(std::string_view message, std::string_view name);
int statusOf(std::string_view message);  // 0 for a request
std::string_view methodOf(std::string_view request);
// Method of the transaction, from the CSeq header.
std::string_view transactionOf(std::string_view message);
std::optional<int> callNumberOf(std::string_view message);
// Port of the audio line and connection address of a message's SDP; port 0 without one.
struct MediaAddress {
  std::string ip;
  int port = 0;
};
MediaAddress mediaAddressOf(std::string_view message);
Dialog dialogOf(std::string_view answer);

std::string callId(const Run& run, int call);
std::string invite(const Run& run, int call, int mediaPort);
std::string ack(const Run& run, int call, const Dialog& dialog);
// The ACK of a refusal belongs to the INVITE's own transaction.
std::string ackOfRefusal(const Run& run, int call, std::string_view refusal);
std::string bye(const Run& run, int call, const Dialog& dialog);
// An answer of the callee; mediaPort 0: without SDP. A 100 carries no tag.
std::string answer(const Run& run, int call, std::string_view request, std::string_view status,
                   int mediaPort);

}  // namespace load_messages
