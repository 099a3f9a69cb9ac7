// End-to-end: the built palvin-finder, run as a user would run it.
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <chrono>

#include "support/run_tool.h"

namespace palvin {
namespace {

using testing::runTool;
using testing::TempDir;

const std::string kExample = PALVIN_SOURCE_DIR "/examples/capabilities.json";

TEST(ToolPlan, JsonForOnePngFollowsTheSampleCatalogue) {
  auto run = runTool({"plan", "--capabilities", kExample, "--json", "/pictures/Holiday Photo.PNG"});
  EXPECT_EQ(run.exitCode, 0) << run.err;
  EXPECT_EQ(run.out,
            R"({"files":[{"path":"/pictures/Holiday Photo.PNG","sourceFormatId":"png"}],)"
            R"("inlineTargets":[{"formatId":"heic","displayName":"HEIC"},{"formatId":"jpeg","displayName":"JPEG"},)"
            R"({"formatId":"webp","displayName":"WebP"}],)"
            R"("groups":[{"id":"document","label":"Documents","icon":"doc.text",)"
            R"("targets":[{"formatId":"pdf","displayName":"PDF"}]}]})"
            "\n");
  EXPECT_EQ(run.err, "");
}

TEST(ToolPlan, NoPlanIsJsonNullAndStillSuccess) {
  for (auto selection : {std::vector<std::string>{"a.png", "b.wav"}, {"notes.txt"}, {"archive.zip"}, {"noext"}}) {
    std::vector<std::string> args{"plan", "--json", "--capabilities", kExample};
    args.insert(args.end(), selection.begin(), selection.end());
    auto run = runTool(args);
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_EQ(run.out, "null\n") << selection[0];
  }
}

TEST(ToolPlan, ReadableTreeNamesFilesTargetsAndGroups) {
  auto run = runTool({"plan", "--capabilities", kExample, "clip.mov"}, {"NO_COLOR=1"});
  EXPECT_EQ(run.exitCode, 0);
  EXPECT_NE(run.out.find("clip.mov"), std::string::npos);
  EXPECT_LT(run.out.find("MP4"), run.out.find("Images"));
  EXPECT_LT(run.out.find("Images"), run.out.find("GIF"));
  EXPECT_LT(run.out.find("GIF"), run.out.find("Audio"));
  EXPECT_EQ(run.out.find("\x1b["), std::string::npos) << "no colour when not on a terminal";
}

TEST(ToolPlan, UnreadableOrUndecodableCatalogueExitsTwoWithTheLogMessage) {
  TempDir dir;
  mkfifo(dir.file("fifo.json").c_str(), 0600);
  const std::string cases[] = {dir.file("missing.json"), dir.write("broken.json", "{\"schemaVersion\": 1,"),
                               dir.write("array.json", "[]"), dir.file("fifo.json"), dir.path()};
  for (const auto& file : cases) {
    auto started = std::chrono::steady_clock::now();
    auto run = runTool({"plan", "--capabilities", file, "a.png"});
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(20)) << file;
    EXPECT_EQ(run.exitCode, 2) << file;
    EXPECT_EQ(run.out, "") << file;
    EXPECT_EQ(run.err.rfind("Failed to decode capabilities: ", 0), 0u) << run.err;
  }
}

TEST(ToolCheck, SampleCatalogueIsUsableWithWarningsAtTheirPaths) {
  auto run = runTool({"check", kExample});
  EXPECT_EQ(run.exitCode, 0) << run.out;
  for (const char* path : {R"(extensionToFormatId["tga"])", R"(conversions["png"])", R"(conversions["jpeg"])",
                           "formats[11].category"}) {
    EXPECT_NE(run.out.find(std::string("warning: ") + path), std::string::npos) << path << "\n" << run.out;
  }
  EXPECT_EQ(run.out.find("error:"), std::string::npos);
}

TEST(ToolCheck, UnusableDocumentsExitOne) {
  TempDir dir;
  auto v2 = dir.write("v2.json", R"({"schemaVersion":2,"generatedAt":"","categories":[],"formats":[],)"
                                 R"("extensionToFormatId":{},"conversions":{}})");
  auto run = runTool({"check", v2});
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_NE(run.out.find("error: schemaVersion"), std::string::npos) << run.out;

  auto missing = dir.write("m.json", R"({"schemaVersion":1,"generatedAt":"","categories":[],)"
                                     R"("formats":[{"id":"a","displayName":"A","category":"c"}]})");
  run = runTool({"check", missing});
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_NE(run.out.find("error: formats[0].primaryExtension"), std::string::npos) << run.out;

  run = runTool({"check", dir.file("absent.json")});
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_NE(run.out.find("error:"), std::string::npos);
}

TEST(ToolUsage, BadArgumentsExitTwoWithUsageAndHelpExplains) {
  for (auto args : {std::vector<std::string>{}, {"frobnicate"}, {"plan", "a.png"}, {"check"}}) {
    auto run = runTool(args);
    EXPECT_EQ(run.exitCode, 2) << (args.empty() ? "" : args[0]);
    EXPECT_NE((run.out + run.err).find("palvin-finder"), std::string::npos);
  }
  auto help = runTool({"--help"});
  EXPECT_EQ(help.exitCode, 0);
  EXPECT_NE(help.out.find("Shared container"), std::string::npos);
  EXPECT_NE(help.out.find("Exit codes"), std::string::npos);
  auto version = runTool({"--version"});
  EXPECT_EQ(version.exitCode, 0);
  EXPECT_NE(version.out.find("app group"), std::string::npos);
}

}  // namespace
}  // namespace palvin
