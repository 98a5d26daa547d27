#include <arpa/inet.h>
#include <netdb.h>

#include "app/config/Guarded.h"
#include "app/config/Log.h"
#include "app/config/MyConfiguration.h"

namespace {

constexpr const char* kFunction = "MyConfiguration::validateAndGetDottedIPAddress";
// A host name has at most 253 characters (RFC 1035, 2.3.4, as text).
constexpr std::size_t kHostCapacity = 256;

void logUnknownHost(std::string_view host, int error) {
  Log::error(kFunction, "unable to locate host (%.*s). Error: %d - %s\n", static_cast<int>(host.size()),
             host.data(), error, hstrerror(error));
}

// The text of an address. The common case keeps what was written; other spellings that the parser accepts
// (with blanks behind it, or with many leading zeros) are written out.
void storeDotted(std::string_view text, in_addr address, FixedText<16>& out) {
  const bool plain = text.find_first_not_of("0123456789.") == std::string_view::npos;
  if (plain && out.assign(text)) return;
  (void)inet_ntop(AF_INET, &address, out.data(), out.maxLength() + 1);
}

bool findAddress(std::string_view value, FixedText<16>& out) {
  FixedText<kHostCapacity> host;
  if (!host.assign(value)) {
    logUnknownHost(value, HOST_NOT_FOUND);
    return true;
  }
  const in_addr written{inet_addr(host.c_str())};
  if (written.s_addr != INADDR_NONE) {
    storeDotted(value, written, out);
    return false;
  }

  const hostent* found = gethostbyname(host.c_str());
  if (found == nullptr) {
    logUnknownHost(value, h_errno);
    return true;
  }
  if (found->h_addrtype != AF_INET) {
    Log::error(kFunction, "address type for host %s is not AF_INET", host.c_str());
    return true;
  }
  if (found->h_addr_list[0] == nullptr) {
    Log::error(kFunction, "did not get ip for host %s", host.c_str());
    return true;
  }
  (void)inet_ntop(AF_INET, found->h_addr_list[0], out.data(), out.maxLength() + 1);
  return false;
}

}  // namespace

bool MyConfiguration::validateAndGetDottedIPAddress(std::string_view value, FixedText<16>& out) {
  return guarded(kFunction, true, [&] { return findAddress(value, out); });
}
