// End-to-end: the built palvin-finder, run as a user would run it.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "support/run_tool.h"

namespace palvin {
namespace {

using testing::runTool;
using testing::TempDir;
using Args = std::vector<std::string>;

const std::string kExample = PALVIN_SOURCE_DIR "/examples/capabilities.json";

TEST(ToolPlan, JsonIsTheWholePlanOrNull) {
  auto run = runTool({"plan", "--capabilities", kExample, "--json", "/pictures/Holiday Photo.PNG"});
  EXPECT_EQ(run.exitCode, 0) << run.err;
  EXPECT_EQ(
      run.out,
      R"({"files":[{"path":"/pictures/Holiday Photo.PNG","sourceFormatId":"png"}],)"
      R"("inlineTargets":[{"formatId":"heic","displayName":"HEIC"},{"formatId":"jpeg","displayName":"JPEG"},)"
      R"({"formatId":"webp","displayName":"WebP"}],"groups":[{"id":"document","label":"Documents",)"
      R"("icon":"doc.text","targets":[{"formatId":"pdf","displayName":"PDF"}]}]})"
      "\n");
  EXPECT_EQ(run.err, "");
  auto none = runTool({"plan", "--json", "--capabilities", kExample, "a.png", "b.wav"});
  EXPECT_EQ(none.exitCode, 0);
  EXPECT_EQ(none.out, "null\n");
}

// A FIFO would block a reader that opened it; the tool must refuse it instead.
// Standard error starts with the message; where the reason is known, it is the whole message.
TEST(ToolPlan, UnreadableOrUndecodableCatalogueExitsTwoWithTheLogMessage) {
  TempDir dir;
  mkfifo(dir.file("fifo.json").c_str(), 0600);
  const std::string failed = "Failed to decode capabilities: ", fifo = dir.file("fifo.json");
  // clang-format off
  for (const auto& [file, start] : std::vector<std::pair<std::string, std::string>>{
           {dir.file("missing.json"), failed}, {dir.write("broken.json", "{\"schemaVersion\": 1,"), failed},
           {dir.write("array.json", "[]"), failed}, {fifo, failed + fifo + ": is a FIFO, not a regular file\n"},
           {dir.path(), failed + dir.path() + ": is a directory, not a regular file\n"}}) {
    // clang-format on
    auto run = runTool({"plan", "--capabilities", file, "a.png"});
    EXPECT_EQ(run.exitCode, 2) << file;
    EXPECT_EQ(run.out, "") << file;
    EXPECT_EQ(run.err.substr(0, start.size()), start);
  }
}

// What each run must print, on standard output and on standard error, and its exit code.
TEST(ToolCheckAndUsage, ExitCodesAndMessages) {
  TempDir dir;
  const std::string v2 =
      dir.write("v2.json", R"({"schemaVersion":2,"generatedAt":"","categories":[],"formats":[],)"
                           R"("extensionToFormatId":{},"conversions":{}})");
  const std::string noExtension =
      dir.write("m.json", R"({"schemaVersion":1,"generatedAt":"","categories":[],)"
                          R"("formats":[{"id":"a","displayName":"A","category":"c"}]})");
  const std::string usage = "Usage: palvin-finder <";
  // clang-format off
  for (const auto& [args, exitCode, out, err] : std::vector<std::tuple<Args, int, Args, Args>>{
           {{"check", kExample}, 0, {R"(warning: extensionToFormatId["tga"])", R"(warning: conversions["png"])",
                                     R"(warning: conversions["jpeg"])", "warning: formats[11].category", kExample + ": usable, "}, {}},
           {{"check", v2}, 1, {"error: schemaVersion", v2 + ": not usable"}, {}},
           {{"check", noExtension}, 1, {"error: formats[0].primaryExtension"}, {}},
           {{"check", dir.file("absent.json")}, 1, {"error: (file)"}, {}},
           {{}, 2, {}, {usage}}, {{"frobnicate"}, 2, {}, {"unknown command 'frobnicate'", usage}},
           {{"plan", "a.png"}, 2, {}, {usage}}, {{"check"}, 2, {}, {usage}},
           {{"--help"}, 0, {"Shared container", "Exit codes"}, {}}, {{"--version"}, 0, {"app group"}, {}}}) {
    // clang-format on
    auto run = runTool(args);
    EXPECT_EQ(run.exitCode, exitCode) << (args.empty() ? "" : args.back());
    for (const auto& text : out) EXPECT_NE(run.out.find(text), std::string::npos) << text << "\n" << run.out;
    for (const auto& text : err) EXPECT_NE(run.err.find(text), std::string::npos) << text << "\n" << run.err;
  }
}

}  // namespace
}  // namespace palvin
