// A log that may be large: read from its end, or from a place in it, never as a whole.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

// Its length; 0 when it is not there.
std::uint64_t sizeOfFile(const std::string& path);

// What stands behind the offset, at most `most` bytes; everything when the file has become shorter than that,
// since it was then begun anew.
std::string readFileFrom(const std::string& path, std::uint64_t offset, std::size_t most);

// Which of the two texts occurs last: the first (true) or the second (false); nothing when neither does.
// Reads blocks from the end and stops at the one that tells.
std::optional<bool> occursLast(const std::string& path, std::string_view first, std::string_view second);

// Hands over each whole line behind the offset, without its line feed. The offset behind the last one.
std::uint64_t forEachLine(const std::string& path, std::uint64_t offset,
                          const std::function<void(std::string_view line)>& use);

// Heads of the process's records: it refuses new calls from now on; the beginning of what it says first of
// all.
inline constexpr std::string_view kDrainRecord = " INFO in sigUsr2Handle, Got shutdown request";
inline constexpr std::string_view kStartRecord = " INFO in quorvel_main, Loading Quorvel version ";
