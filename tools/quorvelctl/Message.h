// SIP messages in the log, as a trace finds and shows them.
#pragma once

#include <string>
#include <string_view>

// Place of the text, whatever its capitals. (Mask.cpp)
std::size_t findFolded(std::string_view text, std::string_view what, std::size_t from);
// The message without passwords, answers to challenges and keys of media. (Mask.cpp)
std::string masked(std::string text);
