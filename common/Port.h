#pragma once

inline constexpr int kHighestPort = 65535;  // of UDP (RFC 768)
