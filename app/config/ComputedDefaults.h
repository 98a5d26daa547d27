// Defaults that depend on other keys and on the host. Each stores its setting.
#pragma once

namespace computed_defaults {

// SipUAIP: the local address that reaches the PBX, or the host's first usable one. Logs what it found.
void ownAddress();
// SipProxyDomain: the PBX's address, or ours when the PBX runs on this host. Needs SipUAIP.
void proxyDomain();
// SipUAIPForBinding: SipUAIP.
void bindingAddress();

}  // namespace computed_defaults
