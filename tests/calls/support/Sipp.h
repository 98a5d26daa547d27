// One SIPp playing a scenario of tests/calls/sipp/. Scenarios are put together of parts, {{>part}}, and hold
// places written {{name|text}}: the value given for the name, else the text, stands there for SIPp.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/calls/support/Process.h"

using Places = std::map<std::string, std::string>;

struct SippRun {
  std::string scenario;  // file name without .xml
  Places places{};
  int port = 0;       // own SIP port
  int mediaPort = 0;  // announced in its SDP
  int target = 0;     // where a caller sends its INVITE; 0 for a callee
};

class Sipp {
 public:
  Sipp(const std::filesystem::path& directory, const SippRun& run);

  // A callee listens: wait for that before anybody calls it.
  bool ready(Seconds limit = Seconds(5)) const;
  // Did the call go as the scenario says? False also when time is over.
  bool succeeded(Seconds limit = Seconds(15));
  Process& process() { return *program; }
  // What SIPp saw and what it did not like, for the message of a failed test.
  std::string report() const;

 private:
  int sipPort;
  std::filesystem::path errorFile;
  std::filesystem::path messageFile;
  std::unique_ptr<Process> program;
};

// Scenario text that checks one header of the message just received against a regular expression (or, with
// mustNot, that no such header value occurs). A name that ends with a colon is a header; "" is the whole
// message.
std::string must(const std::string& header, const std::string& expression);
std::string mustNot(const std::string& header, const std::string& expression);
