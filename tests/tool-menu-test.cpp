// End-to-end: palvin-finder menu, explain and demo on real temporary containers.
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>

#include "support/run_tool.h"

namespace palvin {
namespace {

using testing::readWholeFile;
using testing::runTool;
using testing::TempDir;

const std::string kExample = PALVIN_SOURCE_DIR "/examples/capabilities.json";

// Log lines without their timestamps.
std::vector<std::string> logEntries(const std::string& path) {
  std::vector<std::string> out;
  std::string content = readWholeFile(path);
  std::regex stamp(R"(^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z )");
  std::size_t start = 0;
  while (start < content.size()) {
    std::size_t end = content.find('\n', start);
    std::string line = content.substr(start, end - start);
    EXPECT_TRUE(std::regex_search(line, stamp)) << line;
    out.push_back(std::regex_replace(line, stamp, ""));
    start = end + 1;
  }
  return out;
}

struct Session {
  TempDir dir;
  std::string container = dir.path() + "/container";
  std::string photo = dir.write("Files/Holiday \"1\".png", "x");
  Session() { dir.write("container/capabilities.json", readWholeFile(kExample)); }
};

TEST(ToolMenu, APickWritesTheRequestAndTheSessionIsLogged) {
  Session s;
  auto run = runTool({"menu", "--container", s.container, "--bundle", s.dir.path(), "--pick", "2", s.photo},
                     {"NO_COLOR=1"});
  ASSERT_EQ(run.exitCode, 0) << run.err;
  EXPECT_NE(run.out.find("[2] JPEG"), std::string::npos) << run.out;

  auto requests = std::filesystem::directory_iterator(s.container + "/requests");
  std::string name = requests->path().filename();
  EXPECT_TRUE(std::regex_match(name, std::regex("[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}\\.json")));
  EXPECT_EQ(readWholeFile(requests->path()), R"({"targetFormatId":"jpeg","files":[{"path":")" +
                                                 std::regex_replace(s.photo, std::regex("[/\"]"), "\\$&") +
                                                 R"(","sourceFormatId":"png"}]})");

  auto log = logEntries(s.container + "/finder-extension.log");
  ASSERT_EQ(log.size(), 7u);
  EXPECT_EQ(log[0], "[INFO] FinderSync launched: " + s.dir.path());
  EXPECT_TRUE(std::regex_match(log[1], std::regex(R"(\[DEBUG\] Monitoring \d+ directories)"))) << log[1];
  const std::vector<std::string> rest{
      "[DEBUG] Loaded capabilities: 12 formats, 7 sources",
      "[INFO] Built Convert menu: 1 file(s), 3 inline target(s), 1 nested categor(ies)",
      "[INFO] User chose jpeg for 1 file(s)",
      "[INFO] Wrote request " + name + ": 1 file(s) \u2192 jpeg",
      "[ERROR] Could not resolve host app URL from " + s.dir.path()};
  EXPECT_EQ(std::vector<std::string>(log.begin() + 2, log.end()), rest);
}

TEST(ToolMenu, StalePicksFallbackTitlesInTheUsersLanguageAndMissingPaths) {
  Session s;
  auto stale = runTool({"menu", "--container", s.container, "--pick", "99", s.dir.path() + "/Files"});
  EXPECT_EQ(stale.exitCode, 0);
  EXPECT_NE(stale.out.find("(empty menu"), std::string::npos) << stale.out;
  EXPECT_NE(stale.out.find("[WARN] convertAction: stale menu state for tag 99"), std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(s.container + "/requests"));

  std::filesystem::remove(s.container + "/capabilities.json");
  for (auto [locale, title] : {std::pair{"de_DE.UTF-8", "Mit Palvin konvertieren \u2014 zum Einrichten öffnen"},
                               {"ja_JP.UTF-8", "Palvinで変換 \u2014 開いて設定"},
                               {"C", "Convert with Palvin \u2014 open to set up"}}) {
    auto run = runTool({"menu", "--container", s.container, s.photo},
                       {"-LC_ALL", "-LC_MESSAGES", std::string("LANG=") + locale});
    EXPECT_NE(run.out.find(title), std::string::npos) << locale << "\n" << run.out;
  }

  auto missing = runTool({"menu", "--container", s.container, s.dir.path() + "/nope.png"});
  EXPECT_EQ(missing.exitCode, 2);
  EXPECT_NE(missing.err.find("nope.png"), std::string::npos);
}

TEST(ToolExplain, NamesWhatWithholdsOrShapesTheMenu) {
  TempDir dir;
  auto upper = dir.write("upper.json", R"({"schemaVersion":1,"generatedAt":"","categories":[],"formats":[],
      "extensionToFormatId":{"PNG":"png"},"conversions":{}})");
  struct Case {
    std::string file;
    std::vector<std::string> paths;
    std::vector<std::string> expected;
  };
  const Case cases[] = {
      {kExample, {"a.png", "b.zip"}, {"extension \"zip\" is not a key of extensionToFormatId", "No Convert menu"}},
      {upper, {"a.png"}, {"the document has the key \"PNG\""}},
      {kExample, {"a.wav"}, {"offered nowhere, category not listed in categories: ogg (category sound)", "MP3"}},
      {kExample, {"a.png", "b.pdf"}, {"removed as the selection's own formats: png", "no source category"}},
      {kExample, {"a.png", "b.tga"}, {"dropped, not listed in formats: (none)", "source category: image"}},
  };
  for (const auto& c : cases) {
    std::vector<std::string> args{"explain", "--capabilities", c.file};
    args.insert(args.end(), c.paths.begin(), c.paths.end());
    auto run = runTool(args);
    EXPECT_EQ(run.exitCode, 0) << run.err;
    for (const auto& text : c.expected) EXPECT_NE(run.out.find(text), std::string::npos) << text << "\n" << run.out;
  }
  EXPECT_EQ(runTool({"explain", "--capabilities", dir.file("absent.json"), "a.png"}).exitCode, 2);
}

TEST(ToolDemo, WalksThroughEveryStepAndKeepsTheContainerOnlyWhenAsked) {
  auto run = runTool({"demo", "--keep"}, {"NO_COLOR=1"});
  ASSERT_EQ(run.exitCode, 0) << run.err;
  for (const char* text : {"The menu for one image", "A mixed selection", "no common target", "Folders only",
                           "Request file: requests/", R"({"targetFormatId":"webp")", "Request consumed",
                           "Result file: Files/photo.png.webp.txt", "stale menu state for tag",
                           "Convert with Palvin \u2014 open to set up", "Failed to decode capabilities: ",
                           "The log file"}) {
    EXPECT_NE(run.out.find(text), std::string::npos) << text;
  }
  std::smatch kept;
  ASSERT_TRUE(std::regex_search(run.out, kept, std::regex("Kept: (\\S+)")));
  EXPECT_TRUE(std::filesystem::exists(kept[1].str() + "/container/finder-extension.log"));
  std::filesystem::remove_all(kept[1].str());
}

}  // namespace
}  // namespace palvin
