// Record-Route and Route: the route set of a leg, and the header lines that the next message alone carries.
#include "app/config/Log.h"
#include "sip/HeaderLines.h"
#include "sip/MySip.h"

namespace {

constexpr int kMaxReceivedRoutes = kMaxRoutes - 1;  // one entry is kept for ourselves

}  // namespace

void MySip::storeRoutingInformation(int slot, bool reverse, std::string_view msg) {
  constexpr const char* kFunction = "MySip::storeRoutingInformation";
  constexpr std::string_view kName = "Record-Route:";
  if (!contains(msg, kName)) return;

  std::array<std::string_view, kMaxReceivedRoutes> received;
  int count = 0;
  HeaderLines lines(msg);
  for (std::string_view line; lines.next(line);) {
    if (!isMethod(line, kName)) continue;
    line.remove_prefix(kName.size());
    while (!line.empty()) {
      const std::string_view route = HeaderLines::takeValue(line);
      if (route.empty()) continue;
      if (count == kMaxReceivedRoutes) {
        Log::error(kFunction, "Too many routing records: %.*s\n", static_cast<int>(route.size()),
                   route.data());
        return;
      }
      if (route.size() > decltype(sPhone::ppcRoutes)::value_type::maxLength()) {
        // Cut, it would name another place; a route without one of its hops is the lesser harm.
        Log::warning(kFunction, "Routing too long: %.*s\n", static_cast<int>(route.size()), route.data());
        continue;
      }
      received[static_cast<std::size_t>(count++)] = route;
    }
  }

  sPhone& leg = phone(slot);
  leg.iNumRoutes = 0;
  if (!reverse)
    (void)leg.ppcRoutes[static_cast<std::size_t>(leg.iNumRoutes++)].format("<sip:%s:%d>", pcSipUAIP.c_str(),
                                                                           iSipUAPort);
  for (int i = 0; i < count; ++i) {
    const std::string_view route = received[static_cast<std::size_t>(reverse ? count - 1 - i : i)];
    leg.ppcRoutes[static_cast<std::size_t>(leg.iNumRoutes++)].assignCut(route);
  }
}

void MySip::prepareOneTimeRecordRouteMsg(int slot, bool ownOnly, std::string_view msg) {
  if (!contains(msg, "Record-Route:")) return;
  sPhone& leg = phone(slot);
  if (ownOnly) {
    (void)leg.pcOneTimeRoutingMsg.format("Record-Route: <sip:%s:%d>\r\n", pcSipUAIP.c_str(), iSipUAPort);
    return;
  }
  leg.pcOneTimeRoutingMsg.clear();
  // Ten entries of 199 characters do not all fit; those that do go out whole.
  for (int i = 0; i < leg.iNumRoutes; ++i) {
    (void)leg.pcOneTimeRoutingMsg.appendFormat("Record-Route: %s\r\n",
                                               leg.ppcRoutes[static_cast<std::size_t>(i)].c_str());
  }
}

void MySip::prepareOneTimeRoutingMsgAndDestinationIP(int slot, std::string_view msg) {
  constexpr const char* kFunction = "MySip::prepareOneTimeRoutingMsgAndDestinationIP";
  sPhone& leg = phone(slot);
  if (!contains(msg, "\r\nRoute:") || leg.iNumRoutes < 2) return;
  leg.pcOneTimeRoutingMsg.clear();
  for (int i = 1; i < leg.iNumRoutes; ++i) {
    (void)leg.pcOneTimeRoutingMsg.appendFormat("Route: %s\r\n",
                                               leg.ppcRoutes[static_cast<std::size_t>(i)].c_str());
  }
  sSipUri uri;
  if (analyzeHeaderUri(leg.ppcRoutes[1], uri, kFunction, HostLookup::eYes, "unable to find sip: in") != 0)
    return;
  // A host that is not known (yet) is not the PBX: the request then takes the road of the dialog so far.
  if (!uri.bHasAddress) return;
  leg.pcOneTimeDestinationHost.assignCut(uri.pcIP);
  leg.sOneTimeDestination = addressOf(uri.pcIP.c_str(), uri.iPort);
}
