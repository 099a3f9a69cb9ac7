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
#include "support/temp_dir.h"

namespace palvin {
namespace {

using testing::readText;
using testing::TempDir;

// About 1.1 MB in all: over four times the trim threshold.
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
  static const std::regex kLine(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z \[INFO\] (T(\d+) #(\d+) [a-z]+))");
  std::map<int, int> next;  // thread -> the number its next line must carry
  // The first line is a fragment left by the last trim.
  for (std::size_t start = log.find('\n') + 1, end; start < log.size(); start = end + 1) {
    end = log.find('\n', start);
    const std::string line = log.substr(start, end - start);
    std::smatch match;
    ASSERT_TRUE(std::regex_match(line, match, kLine)) << line;
    const int thread = std::stoi(match[2]), n = std::stoi(match[3]);
    ASSERT_EQ(match[1], message(thread, n));
    // A thread's first kept line may follow a trim; each later one follows its last.
    EXPECT_EQ(n, next.emplace(thread, n).first->second) << "thread " << thread;
    next[thread] = n + 1;
  }
  ASSERT_FALSE(next.empty());
  for (const auto& [thread, after] : next)
    EXPECT_EQ(after, kLinesPerThread) << "thread " << thread << "'s last line";
}

}  // namespace
}  // namespace palvin
