// End-to-end: palvin-finder menu, explain and demo on real temporary containers.
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <string>
#include <tuple>
#include <vector>

#include "support/run_tool.h"

namespace palvin {
namespace {

using testing::readText;
using testing::runTool;
using testing::TempDir;
using Lines = std::vector<std::string>;

const std::string kExample = PALVIN_SOURCE_DIR "/examples/capabilities.json";

// A stale pick on a folder, then JPEG for one photo, in one container.
TEST(ToolMenu, PicksWriteTheExactRequestAndTheSessionIsLogged) {
  TempDir dir;
  const std::string container = dir.path() + "/container", photo = dir.write("Files/Holiday \"1\".png", "x");
  dir.write("container/capabilities.json", readText(kExample));
  auto stale = runTool(
      {"menu", "--container", container, "--bundle", dir.path(), "--pick", "99", dir.path() + "/Files"});
  EXPECT_EQ(stale.exitCode, 0);
  EXPECT_NE(stale.out.find("(empty menu"), std::string::npos) << stale.out;
  EXPECT_FALSE(std::filesystem::exists(container + "/requests"));
  auto run = runTool({"menu", "--container", container, "--bundle", dir.path(), "--pick", "2", photo},
                     {"NO_COLOR=1"});
  ASSERT_EQ(run.exitCode, 0) << run.err;
  EXPECT_NE(run.out.find("[2] JPEG"), std::string::npos) << run.out;

  const auto request = std::filesystem::directory_iterator(container + "/requests")->path();
  const std::string name = request.filename();
  EXPECT_TRUE(std::regex_match(name, std::regex("[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}\\.json"))) << name;
  EXPECT_EQ(readText(request), R"({"targetFormatId":"jpeg","files":[{"path":")" +
                                        std::regex_replace(photo, std::regex("[/\"]"), "\\$&") +
                                        R"(","sourceFormatId":"png"}]})");
  // Every line's time becomes "T"; how many directories are monitored depends
  // on the machine's mounts.
  const std::regex stamp(R"(^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z)", std::regex::multiline),
      count("Monitoring \\d+");
  const std::string log =
      std::regex_replace(std::regex_replace(readText(container + "/finder-extension.log"), stamp, "T"),
                         count, "Monitoring N");
  const std::string launched =
      "T [INFO] FinderSync launched: " + dir.path() + "\nT [DEBUG] Monitoring N directories\n";
  // clang-format off
  EXPECT_EQ(log, launched + "T [WARN] convertAction: stale menu state for tag 99\n" + launched +
                 "T [DEBUG] Loaded capabilities: 12 formats, 7 sources\n"
                 "T [INFO] Built Convert menu: 1 file(s), 3 inline target(s), 1 nested categor(ies)\n"
                 "T [INFO] User chose jpeg for 1 file(s)\n"
                 "T [INFO] Wrote request " + name + ": 1 file(s) \u2192 jpeg\n"
                 "T [ERROR] Could not resolve host app URL from " + dir.path() + "\n");
  // clang-format on
}

// Fallback titles in the user's language come from a container without a
// catalogue; explain names what withholds or shapes the menu. Links are
// selected as themselves: to a folder or dangling, they are files.
TEST(ToolMenuAndExplain, ExitCodesAndMessages) {
  TempDir dir;
  const std::string catalogue = dir.path() + "/c", folderLink = dir.file("folder.png"), dangling = dir.file("gone.png");
  dir.write("c/capabilities.json", readText(kExample));
  std::filesystem::create_directory_symlink(catalogue, folderLink);
  std::filesystem::create_symlink(dir.file("nothing"), dangling);
  // clang-format off
  const std::string photo = dir.write("a.png", "x"), upper = dir.write("upper.json", R"({"schemaVersion":1,"generatedAt":"",)"
      R"("categories":[],"formats":[],"extensionToFormatId":{"PNG":"png"},"conversions":{}})");
  for (const auto& [args, language, exitCode, expected] : std::vector<std::tuple<Lines, std::string, int, Lines>>{
           {{"explain", "--capabilities", kExample, "a.png", "b.zip"}, "", 0, {"extension \"zip\" is not a key of extensionToFormatId", "No Convert menu"}},
           {{"explain", "--capabilities", kExample, "a.wav"}, "", 0, {"offered nowhere, category not listed in categories: ogg (category sound)", "MP3"}},
           {{"explain", "--capabilities", kExample, "a.png", "c.jpg", "b.pdf"}, "", 0, {"removed as the selection's own formats: png", "formats span 2 categories"}},
           {{"explain", "--capabilities", kExample, "a.png", "b.tga"}, "", 0, {"dropped, not listed in formats: (none)", "source category: image"}},
           {{"explain", "--capabilities", upper, "a.png"}, "", 0, {"the document has the key \"PNG\""}},
           {{"explain", "--capabilities", dir.file("absent.json"), "a.png"}, "", 2, {}},
           {{"menu", "--container", dir.path(), photo}, "de_DE.UTF-8", 0, {"Mit Palvin konvertieren \u2014 zum Einrichten öffnen"}},
           {{"menu", "--container", dir.path(), photo}, "ja_JP.UTF-8", 0, {"Palvinで変換 \u2014 開いて設定"}},
           {{"menu", "--container", dir.path(), photo}, "C", 0, {"Convert with Palvin \u2014 open to set up"}},
           {{"menu", "--container", dir.path(), dir.file("nope.png")}, "C", 2, {"nope.png"}},
           {{"menu", "--container", catalogue, "--appearance", "Dark", folderLink, dangling}, "C", 0,
            {"[3] WebP\n", "Documents  {doc.text, white}\n", "2 file(s), 3 inline target(s)"}},
           {{"menu", "--container", catalogue, "--appearance", "Light", photo}, "C", 0, {"Documents  {doc.text, black}\n"}}}) {
    // clang-format on
    auto run = runTool(args, {"-LC_ALL", "-LC_MESSAGES", "LANG=" + language});
    EXPECT_EQ(run.exitCode, exitCode) << args.back() << " " << language;
    for (const auto& text : expected) EXPECT_NE((run.out + run.err).find(text), std::string::npos) << run.out;
  }
}

TEST(ToolDemo, WalksThroughEveryStepAndKeepsTheContainerOnlyWhenAsked) {
  auto run = runTool({"demo", "--keep"}, {"NO_COLOR=1"});
  ASSERT_EQ(run.exitCode, 0) << run.err;
  // clang-format off
  for (const char* text : {"The menu for one image", "A mixed selection", "no common target", "Folders only",
                           "Request file: requests/", R"({"targetFormatId":"webp")", "Request consumed",
                           "Result document: results/", R"("status":"converted")",
                           "Files/photo.webp: RIFF (little-endian) data, Web/P image, ",
                           "Files/scan.webp: RIFF (little-endian) data, Web/P image, ", "stale menu state for tag",
                           "Convert with Palvin \u2014 open to set up", "Failed to decode capabilities: ", "The log file"})
    EXPECT_NE(run.out.find(text), std::string::npos) << text;
  // clang-format on
  // The sizes are read from the WebP headers: the samples are 96 x 64.
  const std::regex size("encoding, 96x64\n");
  EXPECT_EQ(std::distance(std::sregex_iterator(run.out.begin(), run.out.end(), size), std::sregex_iterator()), 2);
  std::smatch kept;
  ASSERT_TRUE(std::regex_search(run.out, kept, std::regex("Kept: (\\S+)")));
  EXPECT_TRUE(std::filesystem::exists(kept[1].str() + "/container/finder-extension.log"));
  std::filesystem::remove_all(kept[1].str());
}

}  // namespace
}  // namespace palvin
