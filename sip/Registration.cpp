// Registration of our own identities (trunk, orig and pair phones) with the PBX.
#include <algorithm>
#include <unistd.h>

#include "app/config/Log.h"
#include "common/Clock.h"
#include "sip/MessageTemplates.h"
#include "sip/MySip.h"

int MySip::initRegistration() {
  const std::time_t now = Clock::now();
  if (!bTrunkExists || !sTrunk.bShouldRegister) sTrunk.sTimeLastRegistration = now;
  for (int slot = 0; slot < iNumSlots; ++slot) {
    if (!phone(slot).bShouldRegister) phone(slot).sTimeLastRegistration = now;
  }
  return 0;
}

void MySip::refreshRegistrations() {
  const std::time_t now = Clock::now();
  const auto refresh = [&](sPhone& identity) {
    if (!identity.bShouldRegister) return;
    const bool isDue = difftime(now, identity.sTimeLastRegistration) >= iRegisterExpiration / 2;
    if (!identity.bRegistered || isDue) sendRegistration(identity, iRegisterExpiration);
  };
  if (bTrunkExists) refresh(sTrunk);
  for (int slot = 0; slot < iNumSlots; ++slot) refresh(phone(slot));
}

ssize_t MySip::sendRegistration(sPhone& identity, int expires) {
  constexpr const char* kFunction = "MySip::sendRegistration";
  try {
    fillNewBranchData(identity.pcRegistrationBranch);
    // A new call resets the counter on a pair leg; a registrar wants rising numbers under one Call-ID (RFC
    // 3261 10.3).
    identity.iCSeq = identity.iRegistrationCSeq = std::max(identity.iCSeq, identity.iRegistrationCSeq) + 1;
    const char* user = identity.pcUserName.c_str();
    const char* domain = pcSipProxyDomain.c_str();
    MessageText text;
    ssize_t sent = -1;
    if (text.format(kRegisterTemplate, domain, pcSipUAIP.c_str(), iSipUAPort, ";rport",
                    identity.pcRegistrationBranch.c_str(), user, user, domain,
                    identity.pcRegistrationTag.c_str(), user, user, domain, user, user, pcSipUAIP.c_str(),
                    iSipUAPort, identity.pcRegistrationCallID.c_str(), identity.iCSeq, expires, kUserAgent)) {
      sent = sendSipMsg(&identity.psLastMsgs, &identity.iLastMsgIndex, identity.pcRegistrationCallID,
                        identity.iCSeq, text, sProxyAddress);
    }
    if (text.empty()) Log::error(kFunction, "REGISTER of %s is too long\n", user);
    if (identity.bRegistered) identity.iUnregisteredSince = Clock::steadyTime().tv_sec;
    identity.bRegistered = false;
    return sent;
  } catch (...) {
    Log::error(kFunction, "exception caught");
    _exit(1);
  }
}
