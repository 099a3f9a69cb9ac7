// End-to-end: palvin-finder requests and log, on real temporary containers.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <palvin/identifiers.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <thread>
#include <tuple>

#include "requests/request.h"
#include "support/run_tool.h"

namespace palvin {
namespace {

using testing::runTool;
using testing::TempDir;
using namespace std::chrono_literals;

constexpr std::int64_t k20260301T100000Z = 1772359200;

void setModificationTime(const std::string& path, std::int64_t seconds, long nanoseconds = 0) {
  timespec times[2] = {{0, UTIME_OMIT}, {static_cast<time_t>(seconds), nanoseconds}};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
}

std::string encoded(const FinderConversionRequest& request) {
  return request.encode().value();
}

// Writes through a dot-named temporary file and a rename, as the extension does.
void writeAtomically(const std::string& path, const std::string& content, std::int64_t modified = 0) {
  auto slash = path.rfind('/');
  std::string temporary = path.substr(0, slash + 1) + "." + path.substr(slash + 1) + ".x1Y2z3.tmp";
  std::ofstream(temporary, std::ios::binary) << content;
  if (modified != 0) setModificationTime(temporary, modified);
  ASSERT_EQ(std::rename(temporary.c_str(), path.c_str()), 0);
}

void append(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary | std::ios::app) << content;
}

bool blocksSigterm(int pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("SigBlk:"))
      return (std::stoull(line.substr(7), nullptr, 16) >> (SIGTERM - 1) & 1) != 0;
  }
  return false;
}

// The tool in a thread, constructed once it watches (it blocks SIGTERM from
// then on, so that a signal ends the watch) or has ended.
struct Watcher {
  explicit Watcher(std::vector<std::string> args)
      : thread([this, args] {
          run = runTool(args, {}, [this](int started) { pid = started; });
          done = true;
        }) {
    while (!done && (pid == 0 || !blocksSigterm(pid))) std::this_thread::sleep_for(10ms);
  }
  ~Watcher() { finish(); }
  const testing::ToolRun& finish() {
    if (thread.joinable()) thread.join();
    return run;
  }
  std::atomic<int> pid{0};
  std::atomic<bool> done{false};
  testing::ToolRun run;
  std::thread thread;
};

TEST(ToolRequests, ListsOldestFirstWithDecodedRequestsAndDecodingErrors) {
  TempDir container;
  const std::string dir = container.path() + "/requests";
  const std::string invalid = R"({"targetFormatId":"jpeg","files":[{"path":"\/a.png"}]})";
  auto older = container.write(
      "requests/F0E1D2C3-0000-4000-8000-000000000001.json",
      encoded({"jpeg", {{"/Users/a/Holiday Photo.png", "png"}, {"/Users/a/Scan ü.heic", "heic"}}}));
  auto newer = container.write("requests/1A2B3C4D-0000-4000-8000-000000000002.json",
                               encoded({"mp3", {{"/Music/take.wav", "wav"}}}));
  auto broken = container.write("requests/broken.json", invalid);
  auto temporary = container.write("requests/.1A2B3C4D-0000-4000-8000-000000000003.json.aB12cD.tmp", "{");
  container.write("requests/notes.txt", "not a request");
  setModificationTime(older, k20260301T100000Z, 250'000'000);
  setModificationTime(newer, k20260301T100000Z + 5);
  setModificationTime(broken, k20260301T100000Z + 5);  // same time: the name decides
  setModificationTime(temporary, k20260301T100000Z - 60);
  auto decodingError = FinderConversionRequest::decode(invalid);
  ASSERT_FALSE(decodingError.ok());

  auto run = runTool({"requests", "--container", container.path()}, {"NO_COLOR=1"});
  EXPECT_EQ(run.exitCode, 1) << run.err;
  EXPECT_EQ(run.out, "3 request file(s) in " + dir +
                         ", oldest first:\n"
                         "F0E1D2C3-0000-4000-8000-000000000001.json  2026-03-01T10:00:00.250Z\n"
                         "  to jpeg, 2 file(s)\n"
                         "    /Users/a/Holiday Photo.png  (png)\n"
                         "    /Users/a/Scan ü.heic  (heic)\n"
                         "1A2B3C4D-0000-4000-8000-000000000002.json  2026-03-01T10:00:05.000Z\n"
                         "  to mp3, 1 file(s)\n"
                         "    /Music/take.wav  (wav)\n"
                         "broken.json  2026-03-01T10:00:05.000Z\n"
                         "  invalid: " +
                         decodingError.error() + "\n");
  EXPECT_EQ(run.err, "");
}

TEST(ToolRequestsAndLog, MissingEmptyAndDefaultContainers) {
  TempDir home;
  TempDir data;
  TempDir empty;
  std::filesystem::create_directory(empty.path() + "/requests");
  const std::string fromXdg = data.path() + "/" + std::string(ids::kAppGroupIdentifier);
  const std::string fromHome = home.path() + "/.local/share/" + std::string(ids::kAppGroupIdentifier);
  const std::string xdg = "XDG_DATA_HOME=" + data.path();
  const std::string log = "/finder-extension.log does not exist.\n";
  const std::tuple<std::vector<std::string>, std::vector<std::string>, std::string> cases[] = {
      {{"requests", "--container", empty.path()}, {}, "No requests in " + empty.path() + "/requests.\n"},
      {{"requests"}, {xdg}, "No requests yet: " + fromXdg + "/requests does not exist.\n"},
      {{"log"}, {xdg}, "No log yet: " + fromXdg + log},
      {{"log"}, {"-XDG_DATA_HOME", "HOME=" + home.path()}, "No log yet: " + fromHome + log},
      {{"requests"}, {"-XDG_DATA_HOME", "-HOME"}, ""},
      {{"log", "--follow"}, {"-XDG_DATA_HOME", "-HOME"}, ""},
  };
  for (const auto& [args, env, out] : cases) {
    auto run = runTool(args, env);
    EXPECT_EQ(run.exitCode, out.empty() ? 2 : 0) << out;
    EXPECT_EQ(run.out, out);
    EXPECT_EQ(run.err.find("no shared container") != std::string::npos, out.empty()) << run.err;
  }
}

TEST(ToolRequests, WatchPrintsARequestThatArrivesByRename) {
  TempDir container;
  const std::string dir = container.path() + "/requests";  // missing: --watch creates it
  Watcher tool({"requests", "--watch", "--timeout", "3", "--container", container.path()});
  const std::string name = "C0FFEE00-0000-4000-8000-000000000004.json";
  writeAtomically(dir + "/" + name, encoded({"png", {{"/p/a.heic", "heic"}}}), k20260301T100000Z + 7);
  auto run = tool.finish();
  EXPECT_EQ(run.exitCode, 0) << run.err;
  EXPECT_EQ(run.out, "No requests yet: " + dir +
                         " does not exist.\n"
                         "Watching " +
                         dir + " for new requests (Ctrl-C to stop).\n" + name +
                         "  2026-03-01T10:00:07.000Z\n"
                         "  to png, 1 file(s)\n"
                         "    /p/a.heic  (heic)\n");
}

TEST(ToolRequestsAndLog, SigintAndSigtermEndWatchingWithExitZero) {
  TempDir container;
  for (std::vector<std::string> args :
       {std::vector<std::string>{"requests", "--watch"}, {"log", "--follow"}}) {
    args.insert(args.end(), {"--container", container.path()});
    for (int signal : {SIGINT, SIGTERM}) {
      Watcher tool(args);
      if (!tool.done) kill(tool.pid, signal);
      EXPECT_EQ(tool.finish().exitCode, 0) << args[0] << " " << signal << " " << tool.run.err;
    }
  }
}

TEST(ToolLog, LevelsKeepWholeEntriesAndFragmentsOnlyUnfiltered) {
  TempDir container;
  const std::string fragment = "sage cut by a trim\n";
  const std::string debug = "2026-03-01T10:00:00.000Z [DEBUG] detail\nof two lines\n";
  const std::string info = "2026-03-01T10:00:01.000Z [INFO] FinderSync launched: /x\n";
  const std::string warn = "2026-03-01T10:00:02.000Z [WARN] first line\n[ERROR] not an entry of its own\n";
  const std::string error = "2026-03-01T10:00:03.123Z [ERROR] Failed to decode capabilities: bad\n";
  const std::string lastError = "2026-03-01T10:00:04.000Z [ERROR] ";  // empty message
  container.write("finder-extension.log", fragment + debug + info + warn + error + lastError + "\n");
  const std::string note = "(fragment: the start of this entry was cut off when the log was trimmed)\n";
  const std::string everything = note + fragment + debug + info + warn + error + lastError + "\n";
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{}, everything},
      {{"--level", "debug"}, everything},
      {{"--level", "info"}, info + warn + error + lastError + "\n"},
      {{"--level", "WARN"}, warn + error + lastError + "\n"},
      {{"--level", "Error"}, error + lastError + "\n"},
  };
  for (const auto& [level, expected] : cases) {
    std::vector<std::string> args{"log", "--container", container.path()};
    args.insert(args.end(), level.begin(), level.end());
    auto run = runTool(args, {"NO_COLOR=1"});
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.out, expected) << (level.empty() ? "no level" : level[1]);
  }
}

TEST(ToolLog, FollowShowsEveryEntryOnceThroughFirstWriteAppendsAndTrim) {
  TempDir container;
  const std::string file = container.path() + "/finder-extension.log";
  auto entry = [](int n) {
    char line[96];
    std::snprintf(line, sizeof line,
                  "2026-03-01T10:%02d:%02d.000Z [INFO] entry %05d, padding to make it long\n", n / 60 % 60,
                  n % 60, n);
    return std::string(line);
  };
  Watcher tool({"log", "-f", "--timeout", "3", "--container", container.path()});
  writeAtomically(file, entry(0));  // the first line of a new file
  std::this_thread::sleep_for(300ms);
  std::string block;
  int count = 1;
  while (block.size() + entry(0).size() < 262144) block += entry(count++);
  append(file, block);
  std::this_thread::sleep_for(300ms);  // the tool reads this before the trim below can cut it off
  append(file, entry(count++));        // past the threshold: trimmed like the extension does
  std::string whole = testing::readWholeFile(file);
  ASSERT_GT(whole.size(), 262144u);
  writeAtomically(file, whole.substr(whole.size() - 131072));
  std::this_thread::sleep_for(300ms);
  append(file, entry(count++));
  append(file, entry(count++));
  auto run = tool.finish();
  EXPECT_EQ(run.exitCode, 0) << run.err;
  std::string expected =
      "No log yet: " + file + " does not exist.\nFollowing " + file + " (Ctrl-C to stop).\n";
  for (int n = 0; n < count; ++n) expected += entry(n);
  EXPECT_TRUE(run.out == expected) << run.out.substr(0, 400);  // each entry once, in order
}

TEST(ToolRequestsAndLog, BadLevelOrTimeoutWithoutWatchingIsAUsageError) {
  TempDir container;
  for (auto args : {std::vector<std::string>{"log", "--level", "verbose"},
                    {"log", "--level", ""},
                    {"log", "--timeout", "1"},
                    {"log", "-f", "--timeout", "0"},
                    {"requests", "--timeout", "1"}}) {
    args.insert(args.end(), {"--container", container.path()});
    auto run = runTool(args);
    EXPECT_EQ(run.exitCode, 2) << args[1] << " " << args[2];
    EXPECT_EQ(run.out, "");
  }
}

}  // namespace
}  // namespace palvin
