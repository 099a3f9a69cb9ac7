// A private directory under the system's temporary directory, removed with
// everything in it when the object goes, and small file helpers for tests
// that use the real file system.
#pragma once

#include <stdlib.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

namespace palvin::testing {

class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "palvin-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) std::abort();
    path_ = pattern;
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  std::string operator/(std::string_view name) const {
    return (std::filesystem::path(path_) / name).string();
  }
  const std::string& str() const { return path_; }
  const std::string& path() const { return path_; }
  std::string file(std::string_view name) const { return *this / name; }
  // Writes `content` to `name` inside the directory, making its parents, and
  // returns the file's path.
  std::string write(std::string_view name, std::string_view content) const {
    std::string path = *this / name;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
    return path;
  }

 private:
  std::string path_;
};

inline void writeText(const std::string& path, std::string_view text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

inline std::string readText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

}  // namespace palvin::testing
