// The extension process can be killed at any instant. A child process (this
// binary again, with --send-requests) sends requests and logs in a loop on
// the real Linux platform and is killed with SIGKILL at random moments; after
// each kill every request file the host app could pick up must be whole, and
// the log may hold only whole lines, but for lines that a kill tore as the
// kernel can tear them (below).
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <random>
#include <regex>
#include <set>
#include <string>
#include <thread>

#include "platform/linux_platform.h"
#include "requests/request.h"
#include "requests/request_sender.h"
#include "services/log.h"
#include "shared/json_writer.h"
#include "support/temp_dir.h"

extern char** environ;

namespace palvin {
namespace {

namespace fs = std::filesystem;
using testing::readText;

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
  ScopedPlatform installed(platform);
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
  std::string self = fs::read_symlink("/proc/self/exe").string(), flag(kChildFlag), dir = container;
  char* argv[] = {self.data(), flag.data(), dir.data(), nullptr};
  pid_t child = 0;
  return posix_spawn(&child, self.c_str(), nullptr, nullptr, argv, environ) == 0 ? child : -1;
}

// Every file the host app would pick up from the request directory (any
// without a leading dot) is a whole request. Returns how many there are.
int checkRequests(const std::string& container) {
  int count = 0;
  std::error_code missing;
  for (const auto& entry : fs::directory_iterator(requestDirectory(container), missing)) {
    const std::string name = entry.path().filename().string();
    if (name.starts_with('.')) continue;  // a killed write's temporary file
    ++count;
    const std::string text = readText(entry.path().string());
    auto request = FinderConversionRequest::decode(text);
    EXPECT_TRUE(name.ends_with(".json") && request.ok() && request->targetFormatId == "jpeg" &&
                !request->files.empty() && request->files.front().path.starts_with(kPathPrefix))
        << "requests/" << name << " is not a whole request: " << json::toValidUtf8(text.substr(0, 160));
  }
  return count;
}

// What a kill may leave in the log: a SIGKILL stops a write to a regular file
// between pages, so an append that crosses a page boundary can end short.
// That leaves the file ending in a torn line exactly at a page boundary; the
// next append then starts on a line of its own, so only the torn line is lost.
constexpr std::size_t kPageSize = 4096;

const std::regex kLogLine(
    R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z \[(DEBUG|INFO|WARN|ERROR)\] (request \d+[a-d] ={300}|Wrote request [0-9A-F-]{36}\.json: [123] file\(s\) → jpeg|Could not resolve host app URL from .*))");

// The log after a kill, line by line. The first line may be cut by a trim.
// Lines torn by earlier kills (`torn`) stand as lines of their own; the last
// line may be torn by this kill, only at a page boundary, and is then added
// to `torn`. Anything else is a glued or garbled line.
void checkLog(const std::string& log, std::set<std::string>& torn) {
  const std::size_t first = log.find('\n');
  for (std::size_t start = first == std::string::npos ? log.size() : first + 1; start < log.size();) {
    const std::size_t end = log.find('\n', start);
    const std::string line = log.substr(start, end == std::string::npos ? std::string::npos : end - start);
    const std::string shown = json::toValidUtf8(line.substr(0, 160));
    if (end == std::string::npos) {
      EXPECT_EQ(log.size() % kPageSize, 0u)
          << "the log ends inside a line, not at a page boundary: " << shown;
      torn.insert(line);
      return;
    }
    EXPECT_TRUE(std::regex_match(line, kLogLine) || torn.count(line) != 0)
        << "line at byte " << start << " is not a whole line: " << shown;
    start = end + 1;
  }
}

// Waits until the child has logged about `bytes` more (a trim counts as
// growth from zero), so that kills fall at points of progress rather than of
// time, however fast the machine. False when the child ended by itself.
bool waitForLogGrowth(pid_t child, const std::string& log, std::uintmax_t bytes, int& trims) {
  std::error_code error;
  std::uintmax_t last = fs::file_size(log, error), grown = 0;
  if (error) last = 0;
  while (grown < bytes) {
    int status = 0;
    if (::waitpid(child, &status, WNOHANG) == child) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(500));
    const std::uintmax_t size = fs::file_size(log, error);
    if (error) continue;
    trims += size < last;
    grown += size < last ? size : size - last;
    last = size;
  }
  return true;
}

TEST(CrashSafety, KilledSendersLeaveOnlyWholeRequestsAndAWholeLog) {
  testing::TempDir dir;
  const std::string log = dir / FinderLog::kFileName;
  std::mt19937 random(20261123);
  std::uniform_int_distribution<std::uintmax_t> growth(16 << 10, 96 << 10);
  std::uniform_int_distribution<int> lateness(0, 2000);
  std::set<std::string> torn;
  int trims = 0, requests = 0;
  for (int round = 1; round <= 12 && !::testing::Test::HasFailure(); ++round) {
    SCOPED_TRACE("after kill " + std::to_string(round));
    const pid_t child = spawnChild(dir.str());
    ASSERT_GT(child, 0);
    const bool running = waitForLogGrowth(child, log, growth(random), trims);
    std::this_thread::sleep_for(std::chrono::microseconds(lateness(random)));
    ::kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(running && WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)
        << "the child ended by itself: " << status;
    requests = checkRequests(dir.str());
    checkLog(readText(log), torn);
  }
  EXPECT_GT(requests, 0);
  EXPECT_GT(trims, 0) << "the log was never trimmed";
}

}  // namespace
}  // namespace palvin

int main(int argc, char** argv) {
  if (argc == 3 && argv[1] == palvin::kChildFlag) palvin::sendRequestsUntilKilled(argv[2]);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
