#include "tools/quorvelctl/LogFile.h"

#include <algorithm>
#include <fstream>

namespace {

// Large enough that reading costs more than asking for it, small beside the memory of any machine.
constexpr std::size_t kBlock = 256 * 1024;

std::string readAt(std::ifstream& file, std::uint64_t offset, std::size_t length) {
  std::string text(length, '\0');
  file.clear();
  file.seekg(static_cast<std::streamoff>(offset));
  file.read(text.data(), static_cast<std::streamsize>(length));
  text.resize(static_cast<std::size_t>(std::max<std::streamsize>(0, file.gcount())));
  return text;
}

std::uint64_t lengthOf(std::ifstream& file) {
  file.seekg(0, std::ios::end);
  const auto end = file.tellg();
  return end > 0 ? static_cast<std::uint64_t>(end) : 0;
}

}  // namespace

std::uint64_t sizeOfFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return file ? lengthOf(file) : 0;
}

std::string readFileFrom(const std::string& path, std::uint64_t offset, std::size_t most) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return "";
  const std::uint64_t length = lengthOf(file);
  const std::uint64_t from = length < offset ? 0 : offset;
  return readAt(file, from, static_cast<std::size_t>(std::min<std::uint64_t>(most, length - from)));
}

std::optional<bool> occursLast(const std::string& path, std::string_view first, std::string_view second) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return std::nullopt;
  const std::size_t overlap = std::max(first.size(), second.size());  // a text may lie across two blocks
  for (std::uint64_t end = lengthOf(file); end > 0; end -= std::min<std::uint64_t>(end, kBlock)) {
    const std::uint64_t start = end - std::min<std::uint64_t>(end, kBlock);
    const std::string block = readAt(file, start, static_cast<std::size_t>(end - start) + overlap);
    const std::size_t ofFirst = block.rfind(first);
    const std::size_t ofSecond = block.rfind(second);
    if (ofFirst == std::string::npos && ofSecond == std::string::npos) continue;
    return ofSecond == std::string::npos || (ofFirst != std::string::npos && ofFirst > ofSecond);
  }
  return std::nullopt;
}

std::uint64_t forEachLine(const std::string& path, std::uint64_t offset,
                          const std::function<void(std::string_view line)>& use) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return 0;
  std::string text;  // from the offset on; at first the line that the last block cut
  for (;;) {
    const std::string block = readAt(file, offset + text.size(), kBlock);
    if (block.empty()) return offset;
    std::size_t end = text.size(), begin = 0;
    text += block;
    for (; (end = text.find('\n', end)) != std::string::npos; begin = ++end)
      use(std::string_view(text).substr(begin, end - begin));
    offset += begin;
    text.erase(0, begin);
  }
}
