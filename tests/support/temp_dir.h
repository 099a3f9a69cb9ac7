// A private directory under the system's temporary directory, removed with
// everything in it when the object goes, and small helpers for tests that run
// on the real system.
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <string_view>
#include <thread>

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

// Ends the whole run if a guarded call hangs: a blocked system call on an odd
// file can't be interrupted, and carrying on would leave it holding the test's objects.
struct Watchdog {
  Watchdog() { ::alarm(60); }
  ~Watchdog() { ::alarm(0); }
};

// Whether `done` holds within `limit`; the bound only keeps a broken program
// from hanging the suite.
inline bool waitFor(const std::function<bool()>& done,
                    std::chrono::seconds limit = std::chrono::seconds(120)) {
  for (auto end = std::chrono::steady_clock::now() + limit; !done();) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

// The threads this process runs now.
inline std::size_t threadCount() {
  auto tasks = std::filesystem::directory_iterator("/proc/self/task");
  return static_cast<std::size_t>(std::distance(begin(tasks), end(tasks)));
}

inline void writeText(const std::string& path, std::string_view text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

inline std::string readText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

}  // namespace palvin::testing
