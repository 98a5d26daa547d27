// The SIP messages of RFC 4475, which are meant to be hard on a parser: valid ones in unusual dress, and
// broken ones.
#pragma once

#include <string>
#include <string_view>
#include <vector>

struct TortureMessage {
  const char* name;
  std::string_view text;  // lines end with LF; see wireText
};

const std::vector<TortureMessage>& tortureMessages();
// As it is sent: lines end with CR LF, lengths and repeated words are put in.
std::string wireText(const TortureMessage& message);
