#include "services/log.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux_platform.h"
#include "support/fake_platform.h"
#include "support/temp_dir.h"

namespace palvin {
namespace {

using std::chrono::system_clock;
using testing::FakePlatform;
using Level = FinderLog::Level;

const std::string kLogPath = "/container/finder-extension.log";
constexpr const char* kStamp = "2026-11-23T09:00:00.123Z";  // the fake platform's clock

std::string line(const char* tag, const std::string& message) {
  return std::string(kStamp) + " [" + tag + "] " + message + "\n";
}

class LogTest : public ::testing::Test {
 protected:
  std::string fileContent(const std::string& path = kLogPath) {
    FinderLog::flush();
    auto file = fake.file(path);
    return file ? file->content : std::string("<missing>");
  }

  FakePlatform fake;
  ScopedPlatform installed{fake};
};

TEST(LogFormat, TimestampsAreUtcWithMillisecondsFlooredAlsoBefore1970) {
  auto stamp = [](auto sinceEpoch) {
    return FinderLog::formatTimestamp(system_clock::time_point(sinceEpoch));
  };
  EXPECT_EQ(stamp(std::chrono::microseconds(1999)), "1970-01-01T00:00:00.001Z");
  EXPECT_EQ(stamp(std::chrono::milliseconds(-1)), "1969-12-31T23:59:59.999Z");
  EXPECT_EQ(stamp(std::chrono::seconds(951782400)), "2000-02-29T00:00:00.000Z");
}

// The first line creates the file, and the container's directory, by an atomic write; the
// others are appended. A message that is not UTF-8 never reaches the file.
TEST_F(LogTest, LinesFollowInCallOrderAndTheUnifiedLogGetsWarnAndErrorAsError) {
  fake.container = "/fresh";                                          // its directory does not exist yet
  fake.enabledTypes = {UnifiedLogType::info, UnifiedLogType::error};  // debug not recorded
  FinderLog::log(Level::debug, "d");
  FinderLog::log(Level::info, "bad \xff");
  FinderLog::log(Level::info, "i");
  FinderLog::log(Level::warn, "multi\nline");
  FinderLog::log(Level::error, "");
  EXPECT_EQ(fake.unifiedEntries(),
            (std::vector<FakePlatform::UnifiedEntry>{{UnifiedLogType::info, "bad \xff"},
                                                     {UnifiedLogType::info, "i"},
                                                     {UnifiedLogType::error, "multi\nline"},
                                                     {UnifiedLogType::error, ""}}));
  // The file does not depend on what the unified log records.
  EXPECT_EQ(fileContent("/fresh/finder-extension.log"),
            line("DEBUG", "d") + line("INFO", "i") + line("WARN", "multi\nline") + line("ERROR", ""));
  // One atomic write made the file (in a directory made for it); the later lines were appended.
  const auto events = fake.events();
  EXPECT_EQ(std::count(events.begin(), events.end(), "write /fresh/finder-extension.log"), 1);
}

// What the file holds before one more line, and after it: a torn last line
// (a process killed inside an append leaves one) is ended first, so only it
// is lost; an append past the threshold trims the file to its last bytes.
TEST_F(LogTest, OneMoreLineEndsATornLineAndTrimsOnlyPastTheThreshold) {
  const std::string next = line("INFO", "next");
  const std::string full = std::string(FinderLog::kTrimThreshold - next.size() - 1, 'x') + "\n",
                    over = full + "y\n";
  for (const auto& [before, after] : std::vector<std::pair<std::string, std::string>>{
           {"", next},
           {"whole\n", "whole\n" + next},
           {"torn", "torn\n" + next},
           {full, full + next},  // exactly at the threshold
           {over, (over + next).substr(over.size() + next.size() - FinderLog::kTrimKeep)}}) {
    fake.putFile(kLogPath, before, {});
    FinderLog::log(Level::info, "next");
    EXPECT_EQ(fileContent(), after) << before.substr(0, 10);
  }
}

// Far past the 64 MiB that whole-file reads refuse: only the kept tail is
// read back, so the trim still happens and is exact.
TEST(LogOnDisk, AHugeLogIsStillTrimmedToItsLastBytes) {
  testing::TempDir dir;
  const std::string path = dir.write(FinderLog::kFileName, "start\n");
  std::filesystem::resize_file(path, (65u << 20) + 4095);  // sparse: zero bytes up to the last line feed
  std::ofstream(path, std::ios::app) << '\n';
  LinuxPlatform platform({.container = dir.str()});
  ScopedPlatform installed(platform);
  FinderLog::log(Level::info, "after");
  FinderLog::flush();
  const std::string content = testing::readText(path);
  ASSERT_EQ(content.size(), FinderLog::kTrimKeep);
  const std::string last = content.substr(content.rfind('\n', content.size() - 2) + 1);
  EXPECT_TRUE(last.ends_with(" [INFO] after\n")) << last;
  EXPECT_EQ(content.find_first_not_of('\0'), FinderLog::kTrimKeep - last.size() - 1);
}

// A host process that unloads the extension ends the log's thread. Inside a
// host that ran out of threads every call returns and drops its line; once
// threads can be had again, the next line is written. With no platform
// installed, a line goes nowhere. Uninstalling a platform writes its lines
// before it can go.
TEST_F(LogTest, ShutdownEndsTheWorkerAndNoCallWaitsForOneThatCouldNotStart) {
  testing::Watchdog guard;
  FinderLog::log(Level::info, "before");
  FinderLog::flush();
  const auto running = testing::threadCount();
  FinderLog::shutdown();
  EXPECT_EQ(testing::threadCount(), running - 1);
  pthread_attr_t saved, huge;  // no thread to be had: every new one's stack too large to map
  pthread_getattr_default_np(&saved);
  pthread_attr_init(&huge);
  pthread_attr_setstacksize(&huge, std::size_t{1} << 46);
  pthread_setattr_default_np(&huge);
  FinderLog::log(Level::info, "lost");
  FinderLog::flush();
  FinderLog::shutdown();
  pthread_setattr_default_np(&saved);
  FinderLog::log(Level::info, "after");
  EXPECT_EQ(fileContent(), line("INFO", "before") + line("INFO", "after"));

  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        installPlatform(nullptr);
        FinderLog::log(Level::error, "nowhere");
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "");

  std::string written;
  {
    FakePlatform brief;
    std::optional<ScopedPlatform> installed(brief);
    for (int i = 0; i < 1000; ++i) FinderLog::log(Level::info, "n");
    installed.reset();
    written = brief.file(kLogPath).value_or(FakePlatform::File{}).content;
  }  // gone, and the log's worker must not reach it
  EXPECT_EQ(written.size(), 1000 * line("INFO", "n").size());
}

// Many threads log at once, on the real Linux platform, while the file is
// trimmed again and again: every line that is left is whole, and each
// thread's lines stand in the order in which it logged them, none lost
// between the first kept and its last.
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
  testing::TempDir dir;
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

  const std::string log = testing::readText(dir / FinderLog::kFileName);
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
