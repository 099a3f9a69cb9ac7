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

#include <cctype>
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
#include "shared/json_writer.h"
#include "services/log.h"
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
// so each is decoded once, in the round that made it. Returns what is wrong,
// each naming the file and its bytes.
std::vector<std::string> inspect(const std::string& container, std::set<std::string>& decoded, Inspection& found);

// What a kill may leave in the log: a SIGKILL stops a write to a regular file
// between pages, so an append that crosses a page boundary can end short.
// That leaves the file ending in a torn line exactly at a page boundary; the
// next append then starts on a line of its own, so only the torn line is lost.
constexpr std::size_t kPageSize = 4096;

const std::regex kLogLine(
    R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z \[(DEBUG|INFO|WARN|ERROR)\] (request \d+[a-d] ={300}|Wrote request [0-9A-F-]{36}\.json: [123] file\(s\) → jpeg|Could not resolve host app URL from .*))");

// Shaped like the start of a line, as far as it goes: a timestamp and " [".
bool isLinePrefix(const std::string& text) {
  static const std::string mask = "0000-00-00T00:00:00.000Z [";
  for (std::size_t i = 0; i < text.size() && i < mask.size(); ++i) {
    if (mask[i] == '0' ? !std::isdigit(static_cast<unsigned char>(text[i])) : text[i] != mask[i]) return false;
  }
  return true;
}

std::string shown(std::string_view bytes) {
  std::string out = json::toValidUtf8(bytes.substr(0, 160));
  return "\"" + out + (bytes.size() > 160 ? "...\" (" + std::to_string(bytes.size()) + " bytes)" : "\"");
}

std::vector<std::string> inspect(const std::string& container, std::set<std::string>& decoded, Inspection& found) {
  std::vector<std::string> findings;
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
      const std::string text = readText(entry.path().string());
      auto request = FinderConversionRequest::decode(text);
      bool whole = name.ends_with(".json") && request.ok() && request->targetFormatId == "jpeg" &&
                   !request->files.empty() && request->files.size() <= 3;
      for (const auto& file : request.ok() ? request->files : std::vector<FinderFileRef>{}) {
        whole = whole && file.path.starts_with(kPathPrefix) && file.path.ends_with(".png") &&
                file.sourceFormatId == "png";
      }
      if (!whole) {
        findings.push_back("requests/" + name + " is not a whole request (" +
                           (request.ok() ? std::string("unexpected content") : request.error()) + "): " + shown(text));
      }
    }
  }
  for (const auto& entry : fs::directory_iterator(container)) {
    if (isTemporary(entry.path().filename().string())) ++found.containerTemporaries;
  }
  return findings;
}

// The log after a kill, line by line. The first line may be cut by a trim.
// Lines torn by earlier kills (`torn`) stand as lines of their own; the last
// line may be torn by this kill, only at a page boundary, and is then added
// to `torn`. Anything else is a finding: a glued or garbled line, or a tail
// torn where no kill could tear it.
std::vector<std::string> checkLog(const std::string& log, std::set<std::string>& torn) {
  std::vector<std::string> findings;
  if (log.empty()) return findings;
  std::size_t start = log.find('\n') + 1;
  if (start == 0) start = log.size();  // a single line, cut by a trim
  while (start < log.size()) {
    const std::size_t end = log.find('\n', start);
    const std::string line = log.substr(start, end == std::string::npos ? std::string::npos : end - start);
    if (end == std::string::npos) {
      if (log.size() % kPageSize != 0) {
        findings.push_back("the log ends inside a line at byte " + std::to_string(log.size()) +
                           ", not at a page boundary: " + shown(line));
      } else if (!isLinePrefix(line)) {
        findings.push_back("the torn last line is not the start of a line: " + shown(line));
      } else {
        torn.insert(line);
      }
      break;
    }
    if (!std::regex_match(line, kLogLine) && torn.count(line) == 0) {
      findings.push_back("line at byte " + std::to_string(start) + " is not a whole line: " + shown(line));
    }
    start = end + 1;
  }
  return findings;
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
  std::set<std::string> decoded, torn;
  int trims = 0, tornLines = 0;
  for (int round = 0; round < kRounds; ++round) {
    const pid_t child = spawnChild(dir.str());
    ASSERT_GT(child, 0);
    const bool running = waitForLogGrowth(child, log, growth(random), trims);
    std::this_thread::sleep_for(std::chrono::microseconds(lateness(random)));
    ::kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(running && WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)
        << "the child ended by itself: " << status;

    std::vector<std::string> findings = inspect(dir.str(), decoded, last);
    const std::string text = readText(log);
    const std::size_t tornBefore = torn.size();
    for (auto& finding : checkLog(text, torn)) findings.push_back(std::string(FinderLog::kFileName) + ": " + finding);
    tornLines += static_cast<int>(torn.size() - tornBefore);
    for (const auto& finding : findings) ADD_FAILURE() << "after kill " << round + 1 << " of " << kRounds << ": " << finding;
    if (!findings.empty()) break;
  }
  EXPECT_GT(last.requests, 0);
  EXPECT_GT(trims, 0) << "the log was never trimmed";
  // Temporary files of killed writes stay: they are hidden, and nothing in
  // the extension removes files from the shared container.
  std::cout << kRounds << " kills: " << last.requests << " whole request files; temporary files left by "
            << "killed writes: " << last.requestTemporaries << " among the requests, "
            << last.containerTemporaries << " beside the log; " << trims << " trims seen; " << tornLines
            << " log lines torn by a kill\n";
  RecordProperty("requests", last.requests);
  RecordProperty("requestTemporaries", last.requestTemporaries);
  RecordProperty("containerTemporaries", last.containerTemporaries);
  RecordProperty("tornLines", tornLines);
}

}  // namespace
}  // namespace palvin

int main(int argc, char** argv) {
  if (argc == 3 && argv[1] == palvin::kChildFlag) palvin::sendRequestsUntilKilled(argv[2]);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
