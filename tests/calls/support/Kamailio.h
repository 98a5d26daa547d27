// A Kamailio as the PBX: registrar in memory, digest authentication of REGISTER and INVITE, calls of ordinary
// phones sent through the trunk that is registered, calls of the trunk's phones sent to their destination. A
// SUBSCRIBE is accepted and followed by a NOTIFY.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "tests/calls/support/Process.h"

struct PbxSetup {
  int port = 0;
  std::string password;
  bool qop = false;              // challenges with qop="auth", or without
  bool inviteBy401 = false;      // INVITEs are challenged as by a server (401), or as by a proxy (407)
  std::string trunk;             // user name under which the trunk registers
  std::string trunkPhonePrefix;  // user names that begin so call destinations directly
  bool notifies = false;         // tells phones of waiting messages when they register, unasked
};

class Kamailio {
 public:
  Kamailio(const std::filesystem::path& directory, const PbxSetup& setup);

  bool ready(Seconds limit = Seconds(10));
  // REGISTER requests it accepted from that user so far, with an expiry above 0 or with 0.
  int registrations(const std::string& user) const { return accepted(user, "registered"); }
  int withdrawals(const std::string& user) const { return accepted(user, "withdrawn"); }
  // Requests of that method and user that it challenged.
  int challenges(const std::string& method, const std::string& user) const;
  // Final answers with that status to its NOTIFYs.
  int notifyAnswers(int status) const {
    return program->outputCount("PBX told " + std::to_string(status) + ";");
  }
  std::string report() const { return program->output(); }

 private:
  int accepted(const std::string& user, const std::string& what) const;

  int sipPort;
  std::unique_ptr<Process> program;
};
