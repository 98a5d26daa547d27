#include "app/config/ComputedDefaults.h"

#include "app/config/KeyValue.h"
#include "app/config/Log.h"
#include "app/config/MyConfiguration.h"
#include "app/config/ProcessState.h"

namespace {

bool proxyRunsHere() {
  return pcSipProxyIP == "127.0.0.1";
}

}  // namespace

void computed_defaults::ownAddress() {
  if (proxyRunsHere()) {
    pcSipUAIP = pcMyIPAsDetectedInternally;
  } else if (myConfiguration.findMyIP(pcSipUAIP, pcSipProxyIP.c_str(), iSipProxyPort)) {
    Log::warning(kReadParams,
                 "no value given in conf-file for SipUAIP and it could not be auto-detect. Going to try to "
                 "detect it internally.\n");
    pcSipUAIP = pcMyIPAsDetectedInternally;
  }
  Log::info(kReadParams, "The system auto-detected the SipUAIP to be %s\n", pcSipUAIP.c_str());
}

void computed_defaults::proxyDomain() {
  pcSipProxyDomain.assignCut(proxyRunsHere() ? pcSipUAIP : pcSipProxyIP);
}

void computed_defaults::bindingAddress() {
  pcSipUAIPForBinding = pcSipUAIP;
}
