// What ends a start behind the configuration file: identities that cannot be made, addresses and ports that
// cannot be had.
#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <span>
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

// Item of a list whose items each end with ";".
std::string_view itemOf(std::string_view list, int item) {
  for (; item > 0; --item) list.remove_prefix(std::min(list.find(';'), list.size() - 1) + 1);
  return list.substr(0, list.find(';'));
}

// The key of the identity that a record of the SIP engine is about.
std::string identityKey(const std::string& text) {
  struct sGiving {
    const char* pcKey;
    std::string_view values;
  };
  const sGiving lists[] = {{"OrigPhonesName", pcOrigPhonesName},
                           {"PairPhonesName", pcPairPhonesName},
                           {"OrigPhonesSecret", pcOrigPhonesSecret},
                           {"PairPhonesSecret", pcPairPhonesSecret}};
  int phone = 0;
  std::size_t most = 0;
  char what[7] = "", name[200] = "";
  if (std::sscanf(text.c_str(), "%6s of phone %d is longer than %zu", what, &phone, &most) == 3)
    for (const sGiving& list : std::span(lists).subspan(std::string_view(what) == "name" ? 0 : 2, 2))
      if (!list.values.empty() && itemOf(list.values, phone).size() > most) return list.pcKey;
  if (std::sscanf(text.c_str(), "name %199s is", name) != 1) return keyIn(text);
  const std::string_view given = name;
  if (given == pcTrunkName.view()) return "TrunkName";
  for (const sGiving& list : std::span(lists).first(2))
    if ((";" + std::string(list.values)).find(";" + std::string(given) + ";") != std::string::npos)
      return list.pcKey;
  return given.starts_with(pcPairPhonesNamePrefix.view()) ? "PairPhonesNamePrefix" : "OrigPhonesNamePrefix";
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
    const std::string key = identityKey(record.text);
    const bool isError = refused && record.level == sRecord::Level::eError;
    findings.add({isError ? Weight::eError : Weight::eWarning, findings.lineOf(key), key, record.text});
  }
}

in_addr_t read(std::string_view address) {
  return ntohl(inet_addr(std::string(address).c_str()));
}

bool isLoopback(in_addr_t address) {
  return address >> 24U == IN_LOOPBACKNET;
}

// Addresses that can be set, but not be reached, or not be what they look like.
void checkMeanings(Findings& findings) {
  const in_addr_t ours = read(pcSipUAIP), pbx = read(pcSipProxyIP);
  for (const auto& [key, address] :
       {std::pair("SipProxyIP", pcSipProxyIP.view()), std::pair("SipUAIP", pcSipUAIP.view()),
        std::pair("SipUAIPForBinding", pcSipUAIPForBinding.view())}) {
    const auto meant = MySip::ipOf(
        {.sin_family = AF_INET, .sin_port = 0, .sin_addr = {htonl(read(address))}, .sin_zero = {}});
    if (!address.empty() && meant.view() != address)
      findings.warn(key, "is the address " + std::string(meant.view()) + ", but names are compared with " +
                             std::string(address) + " as it is written");
  }
  if (ours == INADDR_ANY || IN_MULTICAST(ours))
    return findings.warn("SipUAIP",
                         "is no address that others can send media to; SipUAIPForBinding may be 0.0.0.0");
  if (findings.isRefused("SipProxyIP") || isLoopback(pbx)) return;
  const std::string name = "the PBX at " + std::string(pcSipProxyIP.view());
  if (pbx == INADDR_ANY || IN_MULTICAST(pbx))
    findings.warn("SipProxyIP", "is no address of a single host");
  else if (isLoopback(ours))
    findings.warn("SipUAIP", "is this host's own for itself: " + name + " reaches it only if it runs here");
  else if (isLoopback(read(pcSipUAIPForBinding)))
    findings.warn("SipUAIPForBinding",
                  "is this host's own for itself: " + name + " is reached only if it runs here");
}

void checkAddress(Findings& findings) {
  checkMeanings(findings);
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

void checkPortIsFree(Findings& findings, const sContext& context, bool isUserGuessed) {
  const char* const key = "SipUAPort";
  if (findings.isRefused(key) || findings.isRefused(bindingKey(findings)) || pcSipUAIPForBinding.empty())
    return;
  const auto process = findProcess(context);
  if (process && ownsPort(*process, iSipUAPort)) return;
  const auto error = refusalOf(iSipUAPort);
  if (!error) return;
  findings.add({*error == EACCES && isUserGuessed ? Weight::eWarning : Weight::eError, findings.lineOf(key),
                key,
                *error == EADDRINUSE ? "is in use on this host; ss -ulpn shows by which program"
                                     : std::string("cannot be had: ") + std::strerror(*error)});
}
