#include "shared/log.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "support/fake_platform.h"

namespace palvin {
namespace {

using std::chrono::milliseconds;
using std::chrono::system_clock;
using testing::FakePlatform;
using Level = FinderLog::Level;

constexpr const char* kLogPath = "/container/finder-extension.log";
constexpr const char* kStamp = "2026-11-23T09:00:00.123Z";

std::string line(const char* tag, const std::string& message) {
  return std::string(kStamp) + " [" + tag + "] " + message + "\n";
}

class LogTest : public ::testing::Test {
 protected:
  std::string fileContent() {
    FinderLog::flush();
    auto file = fake.file(kLogPath);
    return file ? file->content : std::string("<missing>");
  }

  FakePlatform fake;
  testing::ScopedPlatform installed{fake};
};

TEST(LogFormat, TimestampsAreUtcWithMillisecondsFlooredAlsoBefore1970) {
  EXPECT_EQ(FinderLog::formatTimestamp(system_clock::time_point(milliseconds(1795424400123))), kStamp);
  EXPECT_EQ(FinderLog::formatTimestamp(system_clock::time_point(std::chrono::microseconds(1999))),
            "1970-01-01T00:00:00.001Z");
  EXPECT_EQ(FinderLog::formatTimestamp(system_clock::time_point(milliseconds(-1))), "1969-12-31T23:59:59.999Z");
  EXPECT_EQ(FinderLog::formatTimestamp(system_clock::time_point(std::chrono::seconds(951782400))),
            "2000-02-29T00:00:00.000Z");
}

TEST(LogFormat, LinesCarryTagAndMessageUnchanged) {
  auto when = system_clock::time_point(milliseconds(1795424400123));
  EXPECT_EQ(FinderLog::formatLine(when, Level::debug, ""), line("DEBUG", ""));
  EXPECT_EQ(FinderLog::formatLine(when, Level::info, "a\nb  "), line("INFO", "a\nb  "));
  EXPECT_EQ(FinderLog::formatLine(when, Level::warn, "x"), line("WARN", "x"));
  EXPECT_EQ(FinderLog::formatLine(when, Level::error, "x"), line("ERROR", "x"));
}

TEST_F(LogTest, FirstLineCreatesTheFileByAnAtomicWriteAndTheContainerDirectory) {
  fake.container = "/fresh/container";  // its directory does not exist yet
  FinderLog::log(Level::info, "hello");
  FinderLog::flush();
  auto file = fake.file("/fresh/container/finder-extension.log");
  ASSERT_TRUE(file);
  EXPECT_EQ(file->content, line("INFO", "hello"));
  EXPECT_EQ(fake.events(), std::vector<std::string>{"write /fresh/container/finder-extension.log"});
  EXPECT_TRUE(fake.directories.count("/fresh/container"));
}

TEST_F(LogTest, LinesFollowEachOtherInCallOrder) {
  FinderLog::log(Level::info, "one");
  FinderLog::log(Level::debug, "two");
  FinderLog::log(Level::error, "");
  FinderLog::log(Level::warn, "multi\nline");
  EXPECT_EQ(fileContent(), line("INFO", "one") + line("DEBUG", "two") + line("ERROR", "") + line("WARN", "multi\nline"));
}

TEST_F(LogTest, UnifiedLogGetsTheBareMessageWithWarnAndErrorBothAsError) {
  fake.enabledTypes = {UnifiedLogType::info, UnifiedLogType::error};  // debug not recorded
  FinderLog::log(Level::debug, "d");
  FinderLog::log(Level::info, "i");
  FinderLog::log(Level::warn, "w");
  FinderLog::log(Level::error, "e");
  using E = FakePlatform::UnifiedEntry;
  EXPECT_EQ(fake.unifiedEntries(), (std::vector<E>{{UnifiedLogType::info, "i"},
                                                  {UnifiedLogType::error, "w"},
                                                  {UnifiedLogType::error, "e"}}));
  // The file does not depend on what the unified log records.
  EXPECT_EQ(fileContent(), line("DEBUG", "d") + line("INFO", "i") + line("WARN", "w") + line("ERROR", "e"));
}

TEST_F(LogTest, WithoutAContainerOnlyTheUnifiedLogIsWritten) {
  fake.container.reset();
  FinderLog::log(Level::error, "nowhere");
  FinderLog::flush();
  EXPECT_EQ(fake.unifiedEntries().size(), 1u);
  EXPECT_TRUE(fake.events().empty());
  EXPECT_FALSE(fake.file(kLogPath));
}

TEST_F(LogTest, MessagesThatAreNotUtf8NeverReachTheFile) {
  FinderLog::log(Level::info, "before");
  FinderLog::log(Level::info, std::string("bad \xff byte"));
  FinderLog::log(Level::info, "after");
  EXPECT_EQ(fileContent(), line("INFO", "before") + line("INFO", "after"));
  EXPECT_EQ(fake.unifiedEntries().size(), 3u);
}

TEST_F(LogTest, TrimsOnlyPastTheThresholdToTheLastBytes) {
  // Fill to exactly the threshold with one line whose message pads it out.
  const std::string first = line("INFO", "");
  fake.putFile(kLogPath, "", {});
  FinderLog::log(Level::info, std::string(FinderLog::kTrimThreshold - first.size(), 'x'));
  std::string content = fileContent();
  ASSERT_EQ(content.size(), FinderLog::kTrimThreshold);
  FinderLog::log(Level::info, "over");
  std::string expected = (content + line("INFO", "over"));
  expected = expected.substr(expected.size() - FinderLog::kTrimKeep);
  content = fileContent();
  EXPECT_EQ(content.size(), FinderLog::kTrimKeep);
  EXPECT_EQ(content, expected);
}

TEST_F(LogTest, AFileThatCantBeOpenedIsReplacedByTheNewLine) {
  fake.putFile(kLogPath, "old content\n", {});
  fake.failOpenForWriting = "Permission denied";
  FinderLog::log(Level::info, "fresh");
  EXPECT_EQ(fileContent(), line("INFO", "fresh"));
}

TEST_F(LogTest, WriteFailuresLoseTheLineSilently) {
  fake.failWrites = "No space left on device";
  FinderLog::log(Level::info, "lost");
  EXPECT_EQ(fileContent(), "<missing>");
  fake.failWrites.reset();
  FinderLog::log(Level::info, "kept");
  EXPECT_EQ(fileContent(), line("INFO", "kept"));
}

TEST_F(LogTest, ManyThreadsKeepWholeLinesInPerThreadOrder) {
  constexpr int kThreads = 8;
  constexpr int kLines = 200;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kLines; ++i) FinderLog::log(Level::info, "t" + std::to_string(t) + " " + std::to_string(i));
    });
  }
  for (auto& thread : threads) thread.join();
  std::string content = fileContent();
  std::vector<int> next(kThreads, 0);
  std::size_t start = 0;
  int lines = 0;
  while (start < content.size()) {
    auto end = content.find('\n', start);
    ASSERT_NE(end, std::string::npos);
    std::string text = content.substr(start, end - start);
    const std::string prefix = std::string(kStamp) + " [INFO] t";
    ASSERT_EQ(text.rfind(prefix, 0), 0u) << text;
    int thread = std::stoi(text.substr(prefix.size()));
    int index = std::stoi(text.substr(text.find(' ', prefix.size()) + 1));
    EXPECT_EQ(index, next[thread]++) << "thread " << thread;
    ++lines;
    start = end + 1;
  }
  EXPECT_EQ(lines, kThreads * kLines);
}

}  // namespace
}  // namespace palvin
