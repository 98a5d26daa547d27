// A binding table without a socket: an engine of which only the bindings are in use.
#pragma once

#include <cstdlib>
#include <memory>
#include <string>

#include "app/config/Settings.h"
#include "common/Clock.h"
#include "sip/MySip.h"
#include "tests/support/LoopbackPeer.h"

class BindingTable : public MySip {
 public:
  BindingTable() {
    pcSipUAIP.assignCut("10.0.0.5");
    pcSipProxyDomain.assignCut("pbx.example");
    psBindings.reset(static_cast<sBinding*>(std::calloc(kMaxBindings, sizeof(sBinding))));
    loadBindingFiles();
  }

  int bind(const std::string& user, int expires = 3600, int port = 5060, const char* ip = "10.0.0.9") {
    return processNewBindingInformation(user + "@phone.example", user + "@" + pcSipUAIP.c_str(),
                                        user + "@" + pcSipProxyDomain.c_str(), user, ip, port,
                                        LoopbackPeer::address(port, ip), expires);
  }
  int subscribe(int binding, const std::string& callId, int expires = 3600) {
    const int entry = processNewSubscriptionInformation(binding, callId, expires);
    if (entry >= 0) {
      bindingAt(binding).subscription(entry).pcPhoneCallID.assignCut(callId);
      bindingChanged(binding);
    }
    return entry;
  }
};
