// End-to-end: palvin-finder requests and log, on real temporary containers.
#include <gtest/gtest.h>
#include <palvin/identifiers.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <future>

#include "requests/request.h"
#include "support/run_tool.h"

namespace palvin {
namespace {

namespace fs = std::filesystem;
using testing::TempDir;
using namespace std::chrono;
using Request = FinderConversionRequest;

// Writes `name` in `dir`, last modified `later` than 2026-03-01T10:00:00Z.
std::string writeAt(const TempDir& dir, const std::string& name, const std::string& text, nanoseconds later) {
  const std::string path = dir.write(name, text);
  fs::last_write_time(path, file_clock::from_sys(sys_seconds(seconds(1772359200)) + later));
  return path;
}

// The tool in the background, printing to a file that can be read while it
// runs. The timeout only keeps a broken tool from hanging the suite.
struct Watcher {
  explicit Watcher(std::vector<std::string> args) {
    args.insert(args.begin(), {"-c", "exec \"$@\" --timeout 60 >\"$OUT\"", "sh", PALVIN_TOOL_PATH});
    run = std::async(std::launch::async, [this, args] {
      return testing::runProgram("/bin/sh", args, {"OUT=" + out.file("out")}, [&](int p) { pid = p; });
    });
  }
  std::string output() const { return testing::readText(out.file("out")); }
  // Until what it printed so far ends with `text`.
  void waitForEnd(const std::string& text) const {
    for (int i = 0; i < 6000 && !(pid && output().ends_with(text)); ++i) std::this_thread::sleep_for(10ms);
  }
  TempDir out;
  std::atomic<int> pid{0};
  std::future<testing::ToolRun> run;
};

TEST(ToolRequestsAndLog, EveryRunThatDoesNotWatch) {
  TempDir container, data;
  const std::string invalid = R"({"targetFormatId":"jpeg","files":[{"path":"\/a.png"}]})";
  writeAt(container, "requests/z.json", *Request{"jpeg", {{"/ü.heic", "heic"}, {"/b", "png"}}}.encode(),
          250ms);
  writeAt(container, "requests/a.json", *Request{"mp3", {{"/take.wav", "wav"}}}.encode(), 500ms);
  writeAt(container, "requests/broken.json", invalid, 500ms);  // the time of a.json: the name decides
  const std::string listing =
      "3 request file(s) in " + container.path() + "/requests, oldest first:\n" +
      "z.json  2026-03-01T10:00:00.250Z\n  to jpeg, 2 file(s)\n    /ü.heic  (heic)\n    /b  (png)\n" +
      "a.json  2026-03-01T10:00:00.500Z\n  to mp3, 1 file(s)\n    /take.wav  (wav)\n" +
      "broken.json  2026-03-01T10:00:00.500Z\n  invalid: " + Request::decode(invalid).error() + "\n";

  // A trim leaves a fragment first; a line without a timestamp continues its entry.
  const std::string warn = "2026-03-01T10:00:02.000Z [WARN] first line\n[ERROR] not an entry of its own\n";
  const std::string error = "2026-03-01T10:00:03.123Z [ERROR] \n";  // an empty message
  const std::string log = "sage cut\n2026-03-01T10:00:00.000Z [DEBUG] a\nof two lines\n" + warn + error;
  container.write("finder-extension.log", log);
  const std::string note = "(fragment: the start of this entry was cut off when the log was trimmed)\n";

  // Neither a write under way nor another kind of file is a request.
  const std::string group(ids::kAppGroupIdentifier);
  data.write(group + "/requests/.a.json", "{");
  data.write(group + "/requests/notes.txt", "not a request");
  const std::vector<std::string> xdg{"XDG_DATA_HOME=" + data.path()}, none{"-XDG_DATA_HOME", "-HOME", "-PALVIN_SHARED_CONTAINER"};
  const std::string c = "--container=" + container.path();
  const std::tuple<std::vector<std::string>, std::vector<std::string>, int, std::string, std::string>
      cases[] = {
          {{"requests", c}, {}, 1, listing, ""},
          {{"log", c}, {}, 0, note + log, ""},
          {{"log", c, "--level", "WARN"}, {}, 0, warn + error, ""},
          {{"log", c, "--level", "Error"}, {}, 0, error, ""},
          {{"requests"}, xdg, 0, "No requests in " + data.file(group) + "/requests.\n", ""},
          {{"requests"}, none, 2, "", "no shared container"},
          {{"log", "--follow"}, none, 2, "", "no shared container"},
          {{"log", c, "--level", "verbose"}, {}, 2, "", "--level"},
          {{"log", c, "-f", "--timeout", "0"}, {}, 2, "", "--timeout"},
          {{"requests", c, "--timeout", "1"}, {}, 2, "", "--timeout"},  // without --watch
      };
  for (const auto& [args, env, exitCode, out, err] : cases) {
    auto run = testing::runTool(args, env);
    EXPECT_EQ(std::tie(run.exitCode, run.out), std::tie(exitCode, out)) << args.back();
    EXPECT_TRUE(err.empty() ? run.err.empty() : run.err.find(err) != std::string::npos) << run.err;
  }
}

// Either watch ends normally on SIGINT or SIGTERM.
TEST(ToolRequestsAndLog, WatchingShowsEachArrivalOnce) {
  TempDir container;
  const std::string dir = container.path() + "/requests";  // missing: --watch creates it
  Watcher watch({"requests", "--watch", "--container", container.path()});
  watch.waitForEnd("(Ctrl-C to stop).\n");
  fs::rename(writeAt(container, ".n", *Request{"png", {{"/a.heic", "heic"}}}.encode(), 7s), dir + "/w.json");
  watch.waitForEnd("(heic)\n");
  kill(watch.pid, SIGINT);
  EXPECT_EQ(watch.run.get().exitCode, 0);
  EXPECT_EQ(watch.output(),
            "No requests yet: " + dir + " does not exist.\nWatching " + dir +
                " for new requests (Ctrl-C to stop).\n"
                "w.json  2026-03-01T10:00:07.000Z\n  to png, 1 file(s)\n    /a.heic  (heic)\n");

  // The log: its first line by rename, appends, then a trim like the extension's.
  const std::string log = container.file("finder-extension.log");
  auto entry = [](int n) { return "2026-03-01T10:00:00.000Z [INFO] entry " + std::to_string(n) + "\n"; };
  Watcher follow({"log", "--follow", "--container", container.path()});
  follow.waitForEnd("(Ctrl-C to stop).\n");
  fs::rename(container.write(".new", entry(0)), log);
  follow.waitForEnd(entry(0));
  int count = 1;
  for (std::ofstream out(log, std::ios::app); count < 6000; ++count) out << entry(count);
  follow.waitForEnd(entry(count - 1));  // read before the trim below can cut it off
  std::ofstream(log, std::ios::app) << entry(count++);
  const std::string whole = testing::readText(log);
  fs::rename(container.write(".new", whole.substr(whole.size() - 131072)), log);
  std::ofstream(log, std::ios::app) << entry(count++);
  follow.waitForEnd(entry(count - 1));
  kill(follow.pid, SIGTERM);
  EXPECT_EQ(follow.run.get().exitCode, 0);
  std::string expected = "No log yet: " + log + " does not exist.\nFollowing " + log + " (Ctrl-C to stop).\n";
  for (int n = 0; n < count; ++n) expected += entry(n);
  EXPECT_TRUE(follow.output() == expected) << follow.output().substr(0, 400);  // each entry once, in order
}

}  // namespace
}  // namespace palvin
