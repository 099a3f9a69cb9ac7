// End-to-end: the built palvin-finder, run as a user would run it, on real
// temporary containers. Outputs are compared byte for byte, with times made "T".
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <future>
#include <regex>

#include "requests/request.h"
#include "services/log.h"
#include "support/run_tool.h"

namespace palvin {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono;
using testing::readText, testing::TempDir;
using Args = std::vector<std::string>;
using Request = FinderConversionRequest;

const std::string kExample = PALVIN_SOURCE_DIR "/examples/capabilities.json";

// Times become "T", request names "UUID"; how many directories are monitored depends on the machine.
std::string masked(const std::string& text) {
  static const std::regex stamp(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z)"), count("Monitoring \\d+"),
      uuid("[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}");
  const std::string timed = std::regex_replace(text, stamp, "T");
  return std::regex_replace(std::regex_replace(timed, count, "Monitoring N"), uuid, "UUID");
}

// Writes `name` in `dir`, last modified `later` than 2026-03-01T10:00:00Z.
std::string writeAt(const TempDir& dir, const std::string& name, const std::string& text, nanoseconds later) {
  const std::string path = dir.write(name, text);
  fs::last_write_time(path, file_clock::from_sys(sys_seconds(seconds(1772359200)) + later));
  return path;
}

// Arguments, environment, exit code, standard output, standard error.
using Case = std::tuple<Args, Args, int, std::string, std::string>;

// In order: the menu runs share containers, and each shows only its own log lines.
TEST(Tool, EveryCommandPrintsExactlyThisAndExits) {
  TempDir dir;
  // The fixtures and the table, one line each.
  // clang-format off
  const std::string c = dir.path(), missing = c + "/no.json";
  const std::string usage = "Usage: palvin-finder <plan|check|menu|explain|requests|log|demo> [options] [args]\n"
                            "Run 'palvin-finder --help' or 'palvin-finder <command> --help' for more.\n";
  const std::string v2 = dir.write("v2.json", R"({"schemaVersion":2,"generatedAt":"","categories":[],"formats":[],)"
                                              R"("extensionToFormatId":{},"conversions":{}})");
  const std::string upper = dir.write("upper.json", R"({"schemaVersion":1,"generatedAt":"","categories":[],)"
                                                    R"("formats":[],"extensionToFormatId":{"PNG":"png"},"conversions":{}})");
  const std::string invalid = R"({"targetFormatId":"jpeg","files":[{"path":"\/a.png"}]})";
  writeAt(dir, "requests/z.json", *Request{"jpeg", {{"/ü.heic", "heic"}, {"/b", "png"}}}.encode(), 250ms);
  writeAt(dir, "requests/a.json", *Request{"mp3", {{"/take.wav", "wav"}}}.encode(), 500ms);
  writeAt(dir, "requests/broken.json", invalid, 500ms);  // the time of a.json: the name decides
  fs::create_directories(c + "/requests/sub.json/finder-extension.log");  // neither a folder, a write under way nor a text is a request
  dir.write("requests/.a.json", "{");
  dir.write("requests/notes.txt", "");
  const std::string listing =
      "3 request file(s) in " + c + "/requests, oldest first:\n" +
      "z.json  2026-03-01T10:00:00.250Z\n  to jpeg, 2 file(s)\n    /ü.heic  (heic)\n    /b  (png)\n" +
      "a.json  2026-03-01T10:00:00.500Z\n  to mp3, 1 file(s)\n    /take.wav  (wav)\n" +
      "broken.json  2026-03-01T10:00:00.500Z\n  invalid: " + Request::decode(invalid).error() + "\n";
  // A trim leaves a fragment first; a line without a timestamp continues its entry.
  const std::string warn = "2026-03-01T10:00:02.000Z [WARN] first line\n[ERROR] not an entry of its own\n";
  const std::string error = "2026-03-01T10:00:03.123Z [ERROR] \n";  // an empty message
  const std::string log = "sage cut\n2026-03-01T10:00:00.000Z [DEBUG] a\nof two lines\n" + warn + error;
  dir.write("finder-extension.log", log);
  const std::string photo = dir.write("Files/Holiday \"1\".png", "x"), dangling = dir.file("gone.png");
  fs::create_symlink(dir.file("nothing"), dangling);  // selected as itself: a file
  dir.write("cat/capabilities.json", readText(kExample));
  dir.write("cat/finder-extension.log", std::string(FinderLog::kTrimThreshold - 1, '.') + "\n");  // trimmed by the first run: its lines alone show
  // A log past the 64 MiB documents' limit is still shown.
  fs::resize_file(dir.write("big/finder-extension.log", ""), 65 << 20);
  std::ofstream(dir.file("big/finder-extension.log"), std::ios::app) << "\n" + warn;
  const Args none{"-XDG_DATA_HOME", "-HOME", "-PALVIN_SHARED_CONTAINER"}, plain{"LANG=C", "NO_COLOR=1", "-LC_ALL", "-LC_MESSAGES"};
  const std::string noContainer = "no shared container: pass --container, or set PALVIN_SHARED_CONTAINER, XDG_DATA_HOME or HOME";
  const std::string launched = "T [INFO] FinderSync launched: " + c + "\nT [DEBUG] Monitoring N directories\n";
  const std::string catLog = "\nLog " + c + "/cat/finder-extension.log\n" + launched + "T [DEBUG] Loaded capabilities: 12 formats, 7 sources\n";
  const std::string menu = "└─ Convert using Palvin\n   ├─ [1] HEIC\n   ├─ [2] JPEG\n   ├─ [3] WebP\n   ├─ ────────\n   └─ Documents  {doc.text, ";
  const std::string fallback = "Menu (1 selected)\n└─ Convert with Palvin \u2014 open to set up  → opens the host app\n";
  const Case cases[] = {
      {{"plan", "--capabilities", kExample, "--json", "/p/Holiday Photo.PNG"}, {}, 0,
       R"({"files":[{"path":"/p/Holiday Photo.PNG","sourceFormatId":"png"}],"inlineTargets":[{"formatId":"heic","displayName":"HEIC"},)"
       R"({"formatId":"jpeg","displayName":"JPEG"},{"formatId":"webp","displayName":"WebP"}],"groups":[{"id":"document",)"
       R"("label":"Documents","icon":"doc.text","targets":[{"formatId":"pdf","displayName":"PDF"}]}]})" "\n", ""},
      {{"plan", "--json", "--capabilities", kExample, "a.png", "b.wav"}, {}, 0, "null\n", ""},
      {{"plan", "--capabilities", missing, "a.png"}, {}, 2, "", "Failed to decode capabilities: " + missing + ": No such file or directory\n"},
      {{"explain", "--capabilities", upper, "a.png", "b.zip"}, {}, 0, "Files\n  a.png\n    extension \"png\" is not a key of extensionToFormatId; the document has the key \"PNG\", but keys match exactly and extensions are lower-cased\n"
       "\nNo Convert menu: one unrecognised file withholds the menu from the whole selection.\n", ""},
      {{"explain", "--capabilities", kExample, "a.png", "c.jpg", "b.pdf"}, {}, 0, "Files\n  a.png\n    extension \"png\" → source format png (category image)\n    converts to: jpeg, webp, pdf, heic, png\n  c.jpg\n    extension \"jpg\" → source format jpeg (category image)\n    converts to: png, webp, pdf, tiff\n  b.pdf\n    extension \"pdf\" → source format pdf (category document)\n    converts to: png, jpeg, txt\n"
       "Targets\n  common to every file: png\n  removed as the selection's own formats: png\n  dropped, not listed in formats: (none)\nCategories\n  no source category: the files' formats span 2 categories, so every target is nested\n  offered nowhere, category not listed in categories: (none)\n\nNo Convert menu: no target is left to offer.\n", ""},
      // What the plan leaves out: a target not listed in formats, one whose category is not listed.
      {{"explain", "--capabilities", kExample, "c.jpg"}, {}, 0, "Files\n  c.jpg\n    extension \"jpg\" → source format jpeg (category image)\n    converts to: png, webp, pdf, tiff\nTargets\n  common to every file: png, webp, pdf, tiff\n  removed as the selection's own formats: (none)\n  dropped, not listed in formats: tiff\n"
       "Categories\n  source category: image (its targets stand inline)\n  offered nowhere, category not listed in categories: (none)\n\nFiles\n  c.jpg  (jpeg)\nConvert\n  ├─ PNG  [png]\n  └─ WebP  [webp]\n  ────────\n  Documents  {doc.text} (document)\n    └─ PDF  [pdf]\n", ""},
      {{"explain", "--capabilities", kExample, "w.wav"}, {}, 0, "Files\n  w.wav\n    extension \"wav\" → source format wav (category audio)\n    converts to: mp3, ogg\nTargets\n  common to every file: mp3, ogg\n  removed as the selection's own formats: (none)\n  dropped, not listed in formats: (none)\n"
       "Categories\n  source category: audio (its targets stand inline)\n  offered nowhere, category not listed in categories: ogg (category sound)\n\nFiles\n  w.wav  (wav)\nConvert\n  └─ MP3  [mp3]\n", ""},
      {{"check", v2}, {}, 1, "error: schemaVersion: schema version 2 is not supported; the extension only reads version 1\n" + v2 + ": not usable, 0 warning(s)\n", ""},
      {{"frobnicate"}, {}, 2, "", "palvin-finder: unknown command 'frobnicate'\n" + usage},
      {{"plan", "a.png"}, {}, 2, "", "palvin-finder: --capabilities is required\n" + usage},
      {{"requests", "--container", c, "--timeout", "1"}, {}, 2, "", "palvin-finder: --timeout requires --watch\n" + usage},
      {{"requests", "--container=" + c}, {}, 1, listing, ""},
      {{"requests"}, none, 2, "", "palvin-finder requests: " + noContainer + "\n"},
      {{"log", "--container", c}, {}, 0, "(fragment: the start of this entry was cut off when the log was trimmed)\n" + log, ""},
      {{"log", "--container", c, "--level", "WARN"}, {}, 0, warn + error, ""},
      {{"log", "--container", c + "/big", "--level", "warn"}, {}, 0, warn, ""},
      {{"log", "--container", c + "/requests/sub.json"}, {}, 2, "", "palvin-finder log: " + c + "/requests/sub.json/finder-extension.log: not a regular file\n"},
      {{"menu", "--container", c + "/fb", "--bundle", c, photo}, plain, 0, fallback + "\nLog " + c + "/fb/finder-extension.log\n" + launched, ""},
      {{"menu", "--bundle", c, photo}, {"NO_COLOR=1", "-XDG_DATA_HOME", "-HOME", "-PALVIN_SHARED_CONTAINER"}, 0, fallback + "\nNo s" + noContainer.substr(4) + ".\n", ""},
      {{"menu", "--container", c, c + "/nope.png"}, plain, 2, "", "palvin-finder menu: " + c + "/nope.png: no such file or directory (the selection must exist)\n"},
      {{"menu", "--container", c + "/cat", "--bundle", c, "--appearance", "Dark", dangling, photo}, plain, 0,
       "Menu (2 selected)\n" + menu + "white}\n      └─ [4] PDF\n" + catLog + "T [INFO] Built Convert menu: 2 file(s), 3 inline target(s), 1 nested categor(ies)\n", ""},
      {{"menu", "--container", c + "/cat", "--bundle", c, "--pick", "2", photo}, plain, 0, "Menu (1 selected)\n" + menu + "black}\n      └─ [4] PDF\n" + catLog +
       "T [INFO] Built Convert menu: 1 file(s), 3 inline target(s), 1 nested categor(ies)\nT [INFO] User chose jpeg for 1 file(s)\n"
       "T [INFO] Wrote request UUID.json: 1 file(s) \u2192 jpeg\nT [ERROR] Could not resolve host app URL from " + c + "\n", ""},
  };
  // clang-format on
  for (const auto& [args, env, exitCode, out, err] : cases) {
    auto run = testing::runTool(args, env);
    const std::string shown =
        args[0] == "menu" ? masked(run.out) : run.out;  // only the menu's log has times of now
    EXPECT_EQ(std::tie(run.exitCode, shown, run.err), std::tie(exitCode, out, err))
        << args[0] << " " << args.back();
  }
  const std::string path =
      std::regex_replace(photo, std::regex("[/\"]"), "\\$&");  // every '/' and '"' escaped
  EXPECT_EQ(readText(fs::directory_iterator(c + "/cat/requests")->path()),
            R"({"targetFormatId":"jpeg","files":[{"path":")" + path + R"(","sourceFormatId":"png"}]})");
}

// The tool in the background, printing to a file that can be read while it
// runs. The timeout only keeps a broken tool from hanging the suite.
struct Watcher {
  explicit Watcher(Args args) {
    args.insert(args.begin(), {"-c", "exec \"$@\" --timeout 60 >\"$OUT\"", "sh", PALVIN_TOOL_PATH});
    run = std::async(std::launch::async, [this, args] {
      return testing::runProgram("/bin/sh", args, {"OUT=" + out.file("out")}, [&](int p) { pid = p; });
    });
  }
  std::string output() const { return readText(out.file("out")); }
  // Until what it printed so far ends with `text`.
  void waitForEnd(const std::string& text) const {
    for (int i = 0; i < 6000 && !(pid && output().ends_with(text)); ++i) std::this_thread::sleep_for(10ms);
  }
  TempDir out;
  std::atomic<int> pid{0};
  std::future<testing::ToolRun> run;
};

// Either watch ends normally on SIGINT or SIGTERM.
TEST(Tool, WatchingShowsEachArrivalOnceThroughRenamesAndTrims) {
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
  const std::string whole = readText(log);
  fs::rename(container.write(".new", whole.substr(whole.size() - 131072)), log);
  std::ofstream(log, std::ios::app) << entry(count++);
  follow.waitForEnd(entry(count - 1));
  kill(follow.pid, SIGTERM);
  EXPECT_EQ(follow.run.get().exitCode, 0);
  std::string expected = "No log yet: " + log + " does not exist.\nFollowing " + log + " (Ctrl-C to stop).\n";
  for (int n = 0; n < count; ++n) expected += entry(n);
  EXPECT_TRUE(follow.output() == expected) << follow.output().substr(0, 400);  // each entry once, in order
}

// The demo's log lines as they come, its pick converted by the host app, and the log file.
TEST(Tool, DemoWalksThroughAPickAndKeepsTheContainerOnlyWhenAsked) {
  auto run = testing::runTool({"demo", "--keep"}, {"NO_COLOR=1"});
  std::smatch kept;
  ASSERT_TRUE(std::regex_search(run.out, kept, std::regex("Kept: (\\S+)"))) << run.exitCode << run.err;
  const std::string out = masked(run.out), file = kept[1].str() + "/container/finder-extension.log";
  // clang-format off
  for (const std::string& text : Args{"warning.\n  log │ T [WARN] convertAction: stale menu state for tag 42\n\n8. ",
                                  "Files/scan.webp: RIFF (little-endian) data, Web/P image, VP8X (extended) encoding, 96x64\n\n7. ",
                                  "the user read it.\n" + masked(readText(file)) + "\nKept: "})
    EXPECT_NE(out.find(text), std::string::npos) << text << "\n" << out;
  // clang-format on
  fs::remove_all(kept[1].str());
}

}  // namespace
}  // namespace palvin
