// What ends a start behind the configuration file: identities that cannot be made, addresses and ports that
// cannot be had.
#include <cerrno>
#include <cstring>
#include <sys/socket.h>

#include "app/config/KeyRegistry.h"
#include "app/config/Settings.h"
#include "common/Handle.h"
#include "sip/MySip.h"
#include "tools/quorvelctl/Check.h"

namespace {

using Weight = sFinding::Weight;

// The longest name of a key in the record; empty when there is none.
std::string keyIn(const std::string& text) {
  std::string found;
  for (const sKey& key : keyRegistry())
    if (text.find(key.pcName) != std::string::npos && std::string_view(key.pcName).size() > found.size())
      found = key.pcName;
  return found;
}

// Nothing when the process can have that port of our address, otherwise why not. Port 0: any port. Without
// SO_REUSEADDR, so that the port of a running program is never shared, not even for a moment.
std::optional<int> refusalOf(int port) {
  const FileDescriptor probe(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const sockaddr_in address = MySip::addressOf(pcSipUAIPForBinding.c_str(), port);
  if (probe.isOpen() && bind(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
    return std::nullopt;
  return errno;
}

// The key that gives the address that sockets are bound to.
const char* bindingKey(const Findings& findings) {
  return findings.lineOf("SipUAIPForBinding") > 0 ? "SipUAIPForBinding" : "SipUAIP";
}

// The SIP engine takes the settings as at a start, and says what it can make nothing of.
void checkIdentities(Findings& findings) {
  takeRecords();
  const bool refused = mySip.init(MySip::BindingFiles::eOfAnother) != 0;
  for (const sRecord& record : takeRecords()) {
    if (record.writer != "MySip::init" || record.level == sRecord::Level::eInfo) continue;
    const std::string key = keyIn(record.text);
    const bool isError = refused && record.level == sRecord::Level::eError;
    findings.add({isError ? Weight::eError : Weight::eWarning, findings.lineOf(key), key, record.text});
  }
}

void checkAddress(Findings& findings) {
  if (pcSipUAIPForBinding.empty()) return;
  if (const auto error = refusalOf(0))
    findings.refuse(bindingKey(findings), pcSipUAIPForBinding.c_str() +
                                              std::string(" is no address that this host can use: ") +
                                              std::strerror(*error));
}

}  // namespace

void checkStart(Findings& findings) {
  checkPorts(findings);
  checkSizes(findings);
  checkIdentities(findings);
  checkAddress(findings);
}

void checkPortIsFree(Findings& findings, const sContext& context) {
  const char* const key = "SipUAPort";
  if (findings.isRefused(key) || findings.isRefused(bindingKey(findings)) || pcSipUAIPForBinding.empty())
    return;
  if (findProcess(context)) return;
  if (const auto error = refusalOf(iSipUAPort))
    findings.refuse(key, *error == EADDRINUSE ? "is in use on this host; ss -ulpn shows by which program"
                                              : std::string("cannot be had: ") + std::strerror(*error));
}
