// The answer to a digest challenge: RFC 2617 section 3.2.2.1 without quality of protection.
#include "sip/MD5.h"
#include "sip/MySip.h"

FixedText<33> MySip::prepareDigestResponse(std::string_view user, std::string_view realm,
                                           std::string_view password, std::string_view method,
                                           std::string_view uri, std::string_view nonce) {
  const MD5::HexDigest secretPart = MD5::hash({user, ":", realm, ":", password});  // HA1
  const MD5::HexDigest requestPart = MD5::hash({method, ":", uri});                // HA2
  return MD5::hash({secretPart, ":", nonce, ":", requestPart});
}
