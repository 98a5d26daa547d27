// A directory of its own below the system's temporary one. It goes with the object unless it is kept, so
// that the files of a failed run can be looked at.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>

class ScratchDirectory {
 public:
  explicit ScratchDirectory(const std::string& name = "quorvel-call") {
    std::string pattern = (std::filesystem::temp_directory_path() / (name + "-XXXXXX")).string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no temporary directory");
    directory = pattern;
  }
  ~ScratchDirectory() {
    std::error_code ignored;
    if (!kept) std::filesystem::remove_all(directory, ignored);
  }
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;

  const std::filesystem::path& path() const { return directory; }
  void keep() { kept = true; }

 private:
  std::filesystem::path directory;
  bool kept = false;
};

// A whole file as text; empty when it cannot be read.
inline std::string readFile(const std::filesystem::path& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

inline void writeFile(const std::filesystem::path& path, std::string_view content) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << content;
}

inline int occurrences(std::string_view text, std::string_view part) {
  int count = 0;
  for (std::size_t at = text.find(part); at != std::string_view::npos; at = text.find(part, at + part.size()))
    ++count;
  return count;
}
