// Many threads log at once, on the real Linux platform, while the file is
// trimmed again and again: every line that is left is whole, and each
// thread's lines stand in the order in which it logged them, none lost
// between the first kept and its last.
#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux_platform.h"
#include "services/log.h"
#include "support/fake_platform.h"
#include "support/temp_dir.h"

namespace palvin {
namespace {

using testing::readText;
using testing::TempDir;

constexpr int kThreads = 8;
constexpr int kLinesPerThread = 800;

// The line's length and filler depend on thread and number, so that a line
// glued from two others or cut short does not read as a line of its own.
std::string message(int thread, int n) {
  return "T" + std::to_string(thread) + " #" + std::to_string(n) + " " +
         std::string(100 + static_cast<std::size_t>((thread * 31 + n) % 80),
                     static_cast<char>('a' + (thread + n) % 26));
}

TEST(LogStress, ConcurrentLinesStayWholeAndInOrderAcrossTrims) {
  TempDir dir;
  LinuxPlatform platform({.container = dir.str(), .bundlePath = dir / "PalvinFinder.appex"});
  ScopedPlatform installed(platform);

  std::size_t written = 0;
  for (int t = 0; t < kThreads; ++t) {
    for (int n = 0; n < kLinesPerThread; ++n) written += message(t, n).size() + 33;
  }
  ASSERT_GT(written, 4 * FinderLog::kTrimThreshold) << "enough to trim several times";

  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int n = 0; n < kLinesPerThread; ++n) FinderLog::log(FinderLog::Level::info, message(t, n));
    });
  }
  for (auto& thread : threads) thread.join();
  FinderLog::flush();

  const std::string log = readText(dir / FinderLog::kFileName);
  ASSERT_FALSE(log.empty());
  EXPECT_LE(log.size(), FinderLog::kTrimThreshold);
  EXPECT_GE(log.size(), FinderLog::kTrimKeep);
  EXPECT_EQ(log.back(), '\n');

  static const std::regex kLine(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z \[INFO\] T(\d+) #(\d+) [a-z]+)");
  std::map<int, int> next;  // thread -> the number its next line must carry
  int lines = 0;
  std::size_t start = log.find('\n') + 1;  // the first line is a trimmed fragment
  while (start < log.size()) {
    const std::size_t end = log.find('\n', start);
    const std::string line = log.substr(start, end - start);
    start = end + 1;
    std::smatch match;
    ASSERT_TRUE(std::regex_match(line, match, kLine)) << line;
    const int thread = std::stoi(match[1]);
    const int n = std::stoi(match[2]);
    ASSERT_EQ(line.substr(line.find(" [INFO] ") + 8), message(thread, n));
    auto expected = next.find(thread);
    if (expected != next.end()) {
      EXPECT_EQ(n, expected->second) << "thread " << thread;
    }
    next[thread] = n + 1;
    ++lines;
  }
  for (const auto& [thread, after] : next)
    EXPECT_EQ(after, kLinesPerThread) << "thread " << thread << "'s last line";
  EXPECT_GT(lines, 0);
}

}  // namespace
}  // namespace palvin
