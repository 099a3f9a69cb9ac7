#include "services/log.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
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
  EXPECT_EQ(stamp(std::chrono::milliseconds(1795424400123)), kStamp);
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
  // One atomic write made the file; the later lines were appended.
  std::vector<std::string> events = fake.events();
  EXPECT_EQ(std::erase(events, "write /fresh/finder-extension.log"), 1u);
  EXPECT_EQ(events, (std::vector<std::string>{"log bad \xff", "log i", "log multi\nline", "log "}));
  EXPECT_TRUE(fake.directories.count("/fresh"));
}

TEST_F(LogTest, WithoutAContainerOnlyTheUnifiedLogIsWritten) {
  fake.container.reset();
  FinderLog::log(Level::error, "nowhere");
  FinderLog::flush();
  EXPECT_EQ(fake.events(), std::vector<std::string>{"log nowhere"});
}

TEST_F(LogTest, TrimsOnlyPastTheThresholdToTheLastBytes) {
  // An existing file filled by appending to exactly the threshold, then one line more.
  fake.putFile(kLogPath, "", {});
  FinderLog::log(Level::info, std::string(FinderLog::kTrimThreshold - line("INFO", "").size(), 'x'));
  std::string full = fileContent();
  ASSERT_EQ(full.size(), FinderLog::kTrimThreshold);
  FinderLog::log(Level::info, "over");
  std::string expected = full + line("INFO", "over");
  EXPECT_EQ(fileContent(), expected.substr(expected.size() - FinderLog::kTrimKeep));
}

// A process killed inside an append leaves a torn last line; the next line
// starts on a line of its own, so only the torn one is lost.
TEST_F(LogTest, ATornLastLineIsEndedBeforeTheNextMessage) {
  for (const auto& [before, kept] : std::vector<std::pair<std::string, std::string>>{
           {"", ""}, {"whole\n", "whole\n"}, {"torn", "torn\n"}, {"\n", "\n"}}) {
    fake.putFile(kLogPath, before, {});
    FinderLog::log(Level::info, "next");
    EXPECT_EQ(fileContent(), kept + line("INFO", "next")) << before;
  }
}

// Far past the 64 MiB that whole-file reads refuse: only the kept tail is
// read back, so the trim still happens and is exact.
TEST(LogOnDisk, AHugeLogIsStillTrimmedToItsLastBytes) {
  testing::TempDir dir;
  const std::string path = dir / FinderLog::kFileName;
  {
    std::ofstream file(path);
    file << "start\n";
  }
  std::filesystem::resize_file(path, (65u << 20) + 4093);  // sparse, ends in zero bytes
  std::filesystem::resize_file(path, (65u << 20) + 4096);
  {
    std::fstream file(path, std::ios::in | std::ios::out);
    file.seekp(-1, std::ios::end);
    file << '\n';
  }
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

// A host process that unloads the extension ends the log's thread; logging
// afterwards starts it again and loses nothing.
TEST_F(LogTest, ShutdownEndsTheWorkerAndALaterLineStartsItAgain) {
  auto threads = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), std::filesystem::directory_iterator());
  };
  FinderLog::log(Level::info, "one");
  FinderLog::flush();
  const auto running = threads();
  FinderLog::shutdown();
  EXPECT_EQ(threads(), running - 1);
  FinderLog::log(Level::info, "two");
  EXPECT_EQ(fileContent(), line("INFO", "one") + line("INFO", "two"));
  FinderLog::shutdown();
}

TEST_F(LogTest, AFailedWriteLosesTheLineSilentlyAndAFileThatCantBeOpenedIsReplaced) {
  fake.failWrites = "No space left on device";
  FinderLog::log(Level::info, "lost");
  EXPECT_EQ(fileContent(), "<missing>");
  fake.failWrites.reset();
  fake.putFile(kLogPath, "old content\n", {});
  fake.failOpenForWriting = "Permission denied";
  FinderLog::log(Level::info, "fresh");
  EXPECT_EQ(fileContent(), line("INFO", "fresh"));
}

TEST_F(LogTest, ManyThreadsKeepWholeLinesInPerThreadOrder) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 200; ++i) FinderLog::log(Level::info, std::to_string(t) + " " + std::to_string(i));
    });
  }
  for (auto& thread : threads) thread.join();
  std::istringstream content(fileContent());
  std::vector<int> next(8, 0);
  for (std::string text; std::getline(content, text);) {
    int thread = -1;
    ASSERT_EQ(std::sscanf(text.c_str(), "%*s [INFO] %d", &thread), 1) << text;
    EXPECT_EQ(text + "\n", line("INFO", std::to_string(thread) + " " + std::to_string(next.at(thread)++)));
  }
  EXPECT_EQ(next, std::vector<int>(8, 200)) << "lines per thread";
}

}  // namespace
}  // namespace palvin
