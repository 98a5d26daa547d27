// REGISTER of phones that use Quorvel as their registrar. Without the proxy arrangement Quorvel answers
// itself; with it, it registers the phone with the PBX under its own Call-ID, tag, branch and CSeq, and
// answers when the PBX has.
#include <arpa/inet.h>

#include "app/config/Log.h"
#include "sip/MessageTemplates.h"
#include "sip/MySip.h"
#include "sip/PhoneRequest.h"

namespace {

constexpr const char* kFunction = "MySip::handleRequestToRegisterWithUs";
constexpr int kDefaultExpires = 3600;            // seconds
constexpr std::size_t kLongestContactHost = 16;  // characters

bool readRegisterExpiry(std::string_view msg, std::string_view contact, int& expires) {
  std::string_view text;
  switch (findExpiry(msg, contact, text)) {
    case ExpirySource::eReadable:
      return readExpiry(text, expires, kFunction);
    case ExpirySource::eEmptyHeader:
      Log::error(kFunction, "Unable to extract expiration from msg\n");
      return false;
    case ExpirySource::eUnreadableParameter:
      Log::warning(kFunction, "Unable to extract expiration from %.*s. Using 3600 instead.\n",
                   static_cast<int>(contact.size()), contact.data());
      break;
    case ExpirySource::eNone:
      Log::warning(kFunction, "Unable to extract expiration from Contact. Using 3600 instead.\n");
      break;
  }
  expires = kDefaultExpires;
  return true;
}

// The phone under its three names.
struct sBindingNames {
  FixedText<kSipNameCapacity> pcName;
  FixedText<kSipNameCapacity> pcAtUA;
  FixedText<kSipNameCapacity> pcAtDomain;
  FixedText<104> pcUser;

  bool derive(const FixedText<kSipNameCapacity>& name) {
    pcName = name;
    const std::string_view user = name.view().substr(0, name.view().find('@'));
    if (pcUser.assign(user) && pcAtUA.format("%s@%s", pcUser.c_str(), pcSipUAIP.c_str()) &&
        pcAtDomain.format("%s@%s", pcUser.c_str(), pcSipProxyDomain.c_str())) {
      return true;
    }
    Log::error(kFunction, "user name is too long: %s\n", name.c_str());
    return false;
  }
};

struct sContactAddress {
  FixedText<18> pcHost;
  int iPort = 0;
  FixedText<16> pcIP;  // the host as a dotted address

  bool read(std::string_view contact) {
    const auto refuse = [contact](const char* why) {
      Log::error(kFunction, "%s%.*s\n", why, static_cast<int>(contact.size()), contact.data());
      return false;
    };
    // Only an address that is going to be used is worth asking the name service.
    const bool isUsed = iUseContactHeaderForFarEndAddressDuringRegistation == 1;
    sSipUri uri;
    if (MySip::analyzeHeaderUri(contact, uri, kFunction, isUsed ? HostLookup::eYes : HostLookup::eNo,
                                "unable to find sip: in To string:") != 0) {
      return false;
    }
    if (isUsed && !uri.bHasAddress)  // the proxy's address would stand for the phone's
      return refuse("error analyzing the URI String ");
    const std::string_view name = uri.pcName;
    const std::size_t at = name.find('@');
    if (at == std::string_view::npos) return refuse("unable to find @ in To string: ");
    const std::string_view host = name.substr(at + 1);
    if (host.size() > kLongestContactHost) return refuse("IP address to long in string: ");
    pcHost.assignCut(host);
    iPort = uri.iPort;
    in_addr dotted{};
    pcIP = uri.pcIP;
    if (inet_pton(AF_INET, pcHost.c_str(), &dotted) == 1) pcIP.assignCut(host);
    // Bound, the PBX would count as a phone, whose calls reach no other; ours would come back to ourselves.
    if (isUsed && (isAt(pcSipProxyIP, iSipProxyPort) || isAt(pcSipUAIP, iSipUAPort)))
      return refuse("no phone is reached at ");
    return true;
  }

  bool isAt(std::string_view ip, int port) const { return pcIP == ip && iPort == port; }
};

}  // namespace

void MySip::handleRequestToRegisterWithUs(std::string_view msg, const sockaddr_in& from) {
  sPhoneRequest request;
  int expires = 0;
  if (!request.read(msg, kFunction) || !readRegisterExpiry(msg, request.contact, expires)) return;
  sSipUri address;
  if (analyzeHeaderUri(request.to, address, kFunction) != 0) return;
  sBindingNames names;
  sContactAddress contact;
  if (!names.derive(address.pcName) || !contact.read(request.contact)) return;

  const bool useContact = iUseContactHeaderForFarEndAddressDuringRegistation == 1;
  const sockaddr_in reachedAt = useContact ? addressOf(contact.pcIP.c_str(), contact.iPort) : from;
  const int binding = processNewBindingInformation(names.pcName, names.pcAtUA, names.pcAtDomain, names.pcUser,
                                                   contact.pcHost, contact.iPort, reachedAt, expires);
  if (binding < 0) {
    Log::error(kFunction, "Unable to get binding index\n");
    return;
  }
  int cseq = 0;
  if (!request.readNumber(cseq, kFunction)) return;

  sBinding& record = bindingAt(binding);
  keepPhoneRequest(record, request, expires);
  (void)record.pcPhoneViaParams.format(";received=%s;rport=%d", ipOf(from).c_str(), ntohs(from.sin_port));
  const bool isRepeat = takeRegistrationDialog(record, request, cseq);
  bindingChanged(binding);

  if (iSipProxyArchitecture == 0) {
    sendOKForRegistrationBackToBindedPhone(binding);
  } else {
    sendRegistrationOnBehalfOfBindedPhone(binding, expires, extractAuthorizationLine(msg), isRepeat);
  }
}

// True for a request that was handled before.
bool MySip::takeRegistrationDialog(sBinding& record, const sPhoneRequest& request, int cseq) {
  switch (classifyPhoneRequest(record, request, cseq)) {
    case PhoneRequestKind::eNewDialog:
      fillNewTagData(record.pcRelayTag);
      drawRelayCallID(record, record.pcRelayCallID);
      return false;
    case PhoneRequestKind::eNext:
      return false;
    case PhoneRequestKind::eOutdated:
      Log::warning(kFunction, "Received smaller sequence number for registration of %s %d %d\n",
                   record.pcPhoneFrom.c_str(), cseq, record.iPhoneCSeq);
      break;
    case PhoneRequestKind::eRepeated:
      break;
  }
  return true;
}

void MySip::sendRegistrationOnBehalfOfBindedPhone(int binding, int expires, std::string_view credentials,
                                                  bool repeat) {
  sBinding& record = bindingAt(binding);
  if (record.pcRelayCallID.empty()) return;  // the user name left no room for one, which has been logged
  if (!repeat) {
    fillNewBranchData(record.pcRelayBranch);
    record.iRelayCSeq = ++record.iRelayCSeqCounter;
    bindingChanged(binding);
  }
  const char* user = record.pcBindingUser.c_str();
  const char* domain = pcSipProxyDomain.c_str();
  const char* ip = pcSipUAIP.c_str();
  MessageText text;
  if (!text.format(kRelayedRegisterTemplate, domain, ip, iSipUAPort, record.pcRelayBranch.c_str(), user, user,
                   domain, record.pcRelayTag.c_str(), user, user, domain, user, user, ip, iSipUAPort,
                   record.pcRelayCallID.c_str(), record.iRelayCSeq, expires, kUserAgent,
                   static_cast<int>(credentials.size()), credentials.data())) {
    return;  // cannot happen: the values are bounded
  }
  sendSipMsg(nullptr, nullptr, record.pcRelayCallID, record.iRelayCSeq, text, sProxyAddress);
}

void MySip::handleOKForRegistrationOnBehalfOfBindedPhone(int binding, std::string_view) {
  bindingAt(binding).tConfirmedExpiry = bindingAt(binding).tRequestedExpiry;
  bindingChanged(binding);
  sendOKForRegistrationBackToBindedPhone(binding);
}

void MySip::sendOKForRegistrationBackToBindedPhone(int binding) {
  const sBinding& record = bindingAt(binding);
  MessageText text;
  if (!text.format(kPhoneAnswerTemplate, viaOfAnswer(record.pcPhoneVia, record.pcPhoneViaParams).c_str(),
                   record.pcPhoneFrom.c_str(), record.pcPhoneTo.c_str(), record.pcRelayTag.c_str(),
                   record.pcPhoneContact.c_str(), record.pcPhoneCallID.c_str(), record.pcPhoneCSeq.c_str(),
                   record.pcPhoneExpires.c_str(), kUserAgent)) {
    return;  // cannot happen: the values are bounded
  }
  sendSipMsg(nullptr, nullptr, record.pcPhoneCallID, record.iPhoneCSeq, text, record.sBindingAddress);
}
