// The extension process can be killed at any instant. A child process (this
// binary again, with --send-requests) sends requests and logs in a loop on
// the real Linux platform and is killed with SIGKILL at random moments; after
// each kill every request file the host app could pick up must be whole, and
// the log must still end in a whole line.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <iostream>
#include <random>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux_platform.h"
#include "requests/request.h"
#include "requests/request_sender.h"
#include "shared/log.h"
#include "support/temp_dir.h"

extern char** environ;

namespace palvin {
namespace {

namespace fs = std::filesystem;
using testing::readText;
using testing::TempDir;

constexpr std::string_view kChildFlag = "--send-requests";
const std::string kPathPrefix = "/Users/été/照片/";

// The child: requests of one to three files with long, non-ASCII paths, and
// four long log lines after each, so that the log is trimmed every couple of
// hundred requests. The bundle lies in no ".app", so nothing is launched. It
// is meant to be killed, but ends by itself after a while or when the test is
// gone.
[[noreturn]] void sendRequestsUntilKilled(const std::string& container) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() == 1) std::_Exit(2);
  LinuxPlatform platform({.container = container, .bundlePath = container + "/PalvinFinder.appex"});
  installPlatform(&platform);
  FinderRequestSender sender;
  const std::string padding(300, '=');
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  for (std::uint64_t n = 0;; ++n) {
    if (std::chrono::steady_clock::now() > deadline) std::_Exit(3);
    FinderConversionRequest request{"jpeg", {}};
    for (std::uint64_t i = 0; i <= n % 3; ++i) {
      request.files.push_back({kPathPrefix + std::to_string(n) + "-" + std::to_string(i) + ".png", "png"});
    }
    sender.send(request);
    for (char part = 'a'; part <= 'd'; ++part) {
      FinderLog::log(FinderLog::Level::debug, "request " + std::to_string(n) + part + " " + padding);
    }
  }
}

pid_t spawnChild(const std::string& container) {
  std::string self = fs::read_symlink("/proc/self/exe").string();
  std::string flag(kChildFlag);
  std::string dir = container;
  char* argv[] = {self.data(), flag.data(), dir.data(), nullptr};
  pid_t child = 0;
  if (posix_spawn(&child, self.c_str(), nullptr, nullptr, argv, environ) != 0) return -1;
  return child;
}

bool isTemporary(const std::string& name) {
  return name.size() > 5 && name.front() == '.' && name.ends_with(".tmp");
}

struct Inspection {
  int requests = 0;
  int requestTemporaries = 0;    // in the request directory
  int containerTemporaries = 0;  // beside the log
};


// Every entry of a directory the host app reads is a whole document of its
// kind or a hidden temporary file. Request files never change once written,
// so each is decoded once, in the round that made it.
void inspect(const std::string& container, std::set<std::string>& decoded, Inspection& found) {
  found = {};
  const std::string requests = requestDirectory(container);
  if (fs::exists(requests)) {
    for (const auto& entry : fs::directory_iterator(requests)) {
      const std::string name = entry.path().filename().string();
      if (isTemporary(name)) {
        ++found.requestTemporaries;
        continue;
      }
      ++found.requests;
      if (!decoded.insert(name).second) continue;
      EXPECT_TRUE(name.ends_with(".json")) << name;
      const std::string text = readText(entry.path().string());
      auto request = FinderConversionRequest::decode(text);
      ASSERT_TRUE(request.ok()) << name << ": " << text;
      EXPECT_EQ(request->targetFormatId, "jpeg");
      EXPECT_TRUE(!request->files.empty() && request->files.size() <= 3) << text;
      for (const auto& file : request->files) {
        EXPECT_TRUE(file.path.starts_with(kPathPrefix) && file.path.ends_with(".png")) << text;
        EXPECT_EQ(file.sourceFormatId, "png");
      }
    }
  }
  for (const auto& entry : fs::directory_iterator(container)) {
    if (isTemporary(entry.path().filename().string())) ++found.containerTemporaries;
  }
}

// After the first line, which a trim may have cut, every line is whole; and
// the file ends with a line feed.
void expectWholeLines(const std::string& log) {
  static const std::regex kLine(
      R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z \[(DEBUG|INFO|WARN|ERROR)\] (request \d+[a-d] ={300}|Wrote request [0-9A-F-]{36}\.json: [123] file\(s\) → jpeg|Could not resolve host app URL from .*))");
  if (log.empty()) return;
  EXPECT_EQ(log.back(), '\n') << "the log ends inside a line: ..."
                              << log.substr(log.size() - std::min<std::size_t>(log.size(), 200));
  std::size_t start = log.find('\n') + 1;
  while (start < log.size()) {
    const std::size_t end = log.find('\n', start);
    const std::string line = log.substr(start, end == std::string::npos ? std::string::npos : end - start);
    EXPECT_TRUE(std::regex_match(line, kLine)) << line;
    if (end == std::string::npos) break;
    start = end + 1;
  }
}

// Waits until the child has logged about `bytes` more (a trim counts as
// growth from zero), so that kills fall at points of progress rather than of
// time, however fast the machine. False when the child ended by itself.
bool waitForLogGrowth(pid_t child, const std::string& log, std::uintmax_t bytes, int& trims) {
  std::uintmax_t last = 0;
  std::error_code error;
  if (auto size = fs::file_size(log, error); !error) last = size;
  std::uintmax_t grown = 0;
  while (grown < bytes) {
    int status = 0;
    if (::waitpid(child, &status, WNOHANG) == child) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(500));
    std::uintmax_t size = fs::file_size(log, error);
    if (error) continue;
    if (size < last) ++trims;
    grown += size < last ? size : size - last;
    last = size;
  }
  return true;
}

TEST(CrashSafety, KilledSendersLeaveOnlyWholeRequestsAndAWholeLog) {
  TempDir dir;
  const std::string log = dir / FinderLog::kFileName;
  std::mt19937 random(20261123);
  std::uniform_int_distribution<std::uintmax_t> growth(16 << 10, 96 << 10);
  std::uniform_int_distribution<int> lateness(0, 2000);
  constexpr int kRounds = 12;

  Inspection last;
  std::set<std::string> decoded;
  int trims = 0;
  for (int round = 0; round < kRounds; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    const pid_t child = spawnChild(dir.str());
    ASSERT_GT(child, 0);
    const bool running = waitForLogGrowth(child, log, growth(random), trims);
    std::this_thread::sleep_for(std::chrono::microseconds(lateness(random)));
    ::kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(running && WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)
        << "the child ended by itself: " << status;

    inspect(dir.str(), decoded, last);
    expectWholeLines(readText(log));
  }
  EXPECT_GT(last.requests, 0);
  EXPECT_GT(trims, 0) << "the log was never trimmed";
  // Temporary files of killed writes stay: they are hidden, and nothing in
  // the extension removes files from the shared container.
  std::cout << kRounds << " kills: " << last.requests << " whole request files; temporary files left by "
            << "killed writes: " << last.requestTemporaries << " among the requests, "
            << last.containerTemporaries << " beside the log; " << trims << " trims seen\n";
  RecordProperty("requests", last.requests);
  RecordProperty("requestTemporaries", last.requestTemporaries);
  RecordProperty("containerTemporaries", last.containerTemporaries);
}

}  // namespace
}  // namespace palvin

int main(int argc, char** argv) {
  if (argc == 3 && argv[1] == palvin::kChildFlag) palvin::sendRequestsUntilKilled(argv[2]);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
