#include "tests/codec/Speech.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace {

std::vector<std::filesystem::path> prompts() {
  std::vector<std::filesystem::path> found;
  std::error_code missing;
  for (const auto& entry :
       std::filesystem::recursive_directory_iterator("/usr/share/asterisk/sounds", missing))
    if (entry.path().extension() == ".g722") found.push_back(entry.path());
  std::ranges::sort(found);
  return found;
}

}  // namespace

Samples recordedSpeech(std::size_t atMost) {
  Samples speech;
  for (const auto& path : prompts()) {
    if (speech.size() >= atMost) break;
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
    SpandspDecoder(64000).decode(Codes(bytes.begin(), bytes.end()), speech);
  }
  speech.resize(std::min(speech.size(), atMost));
  return speech;
}
