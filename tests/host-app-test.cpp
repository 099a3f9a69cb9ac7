// End-to-end: the sample host app PalvinHost.app in the build tree, started by
// the tool through the real launch path and on its own.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <regex>
#include <thread>

#include "requests/request.h"
#include "support/run_tool.h"

namespace palvin {
namespace {

namespace fs = std::filesystem;
using testing::readText;

const std::string kExample = PALVIN_SOURCE_DIR "/examples/capabilities.json";

// Request files still waiting in `directory`: "*.json" without a leading dot.
std::size_t waiting(const std::string& directory) {
  std::error_code ignored;
  return std::count_if(
      fs::directory_iterator(directory, ignored), fs::directory_iterator(), [](const auto& entry) {
        return entry.path().extension() == ".json" && entry.path().filename().string()[0] != '.';
      });
}

// The number of conversions noted in a result file.
std::size_t notes(const std::string& result) {
  std::string text = readText(result);
  return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

testing::ToolRun runHost(const std::string& container, std::vector<std::string> args = {}) {
  return testing::runProgram(PALVIN_HOST_APP_PATH, args, {"PALVIN_SHARED_CONTAINER=" + container});
}

TEST(HostApp, PickFromTheBuildTreeStartsTheHostAppWhichConsumesTheRequest) {
  testing::TempDir dir;
  const std::string container = dir.file("container"), requests = container + "/requests";
  // Newer than the host app's own catalogue, so it stays.
  const std::string catalogue = dir.write("container/capabilities.json", readText(kExample) + " ");
  const std::string photo = dir.write("Files/photo.png", "x");

  // Through the link at the top of the build tree: the tool still knows its
  // bundle inside PalvinHost.app and starts the host app, which outlives it.
  auto run = testing::runProgram(PALVIN_TOOL_LINK, {"menu", "--container", container, "--pick", "1", photo},
                                 {"NO_COLOR=1"});
  ASSERT_EQ(run.exitCode, 0) << run.err;
  EXPECT_EQ(run.out.find("host app"), std::string::npos) << "the launch failed:\n" << run.out;
  std::smatch target;
  ASSERT_TRUE(std::regex_search(run.out, target, std::regex("file\\(s\\) \xE2\x86\x92 (\\S+)"))) << run.out;
  const std::string result = photo + "." + target[1].str() + ".txt";
  auto done = [&] {
    return fs::exists(result) && waiting(requests) + waiting(requests + "/processing") == 0;
  };
  // The bound only keeps a broken host app from hanging the suite.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!done() && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  ASSERT_TRUE(done());
  EXPECT_EQ(notes(result), 1u);
  EXPECT_FALSE(fs::exists(requests + "/failed"));
  EXPECT_EQ(readText(catalogue), readText(kExample) + " ");
}

// Every request once, by whichever instance claims it first; a bad one is set
// aside and logged, and one file that fails does not stop the others.
TEST(HostApp, TwoInstancesTakeEveryRequestOnceAndSetBadOnesAside) {
  testing::TempDir dir;
  const std::string container = dir.file("container"), requests = container + "/requests";
  std::vector<std::string> sources;
  for (int i = 0; i < 200; ++i) {
    sources.push_back(dir.write("Files/f" + std::to_string(i) + ".png", "x"));
    dir.write("container/requests/" + newRequestFileName(),
              *FinderConversionRequest{"webp", {{sources.back(), "png"}}}.encode());
  }
  const std::string wrongType = R"({"targetFormatId":1,"files":[]})";
  dir.write("container/requests/bad.json", wrongType);
  dir.write("container/requests/escape.json", *FinderConversionRequest{"../x/y", {}}.encode());
  // The first file's directory can't take a result, even for root.
  dir.write("container/requests/proc.json",
            *FinderConversionRequest{"gif", {{"/proc/version", "txt"}, {sources[0], "png"}}}.encode());
  // Not requests: a write under way and another kind of file.
  dir.write("container/requests/.AB12.json", "{");
  dir.write("container/requests/notes.txt", "keep");
  // Older than the host app's own catalogue, so it is replaced.
  const std::string catalogue = dir.write("container/capabilities.json", "{}");
  fs::last_write_time(catalogue, fs::last_write_time(catalogue) - std::chrono::hours(24 * 365 * 10));

  std::vector<testing::ToolRun> runs(2);
  {
    std::jthread first([&] { runs[0] = runHost(container); }), second([&] { runs[1] = runHost(container); });
  }
  for (const auto& run : runs) EXPECT_EQ(run.exitCode, 0) << run.err;
  for (const auto& source : sources) EXPECT_EQ(notes(source + ".webp.txt"), 1u) << source;
  EXPECT_EQ(notes(sources[0] + ".gif.txt"), 1u);
  EXPECT_TRUE(fs::is_empty(requests + "/processing"));
  EXPECT_EQ(readText(requests + "/failed/bad.json"), wrongType);
  EXPECT_TRUE(fs::exists(requests + "/failed/escape.json"));
  EXPECT_EQ(readText(requests + "/.AB12.json") + readText(requests + "/notes.txt"), "{keep");
  EXPECT_EQ(readText(catalogue), readText(kExample));
  // Exactly the three failures are logged, each on the line that names it.
  const std::string log = readText(container + "/host-app.log");
  const std::regex error("\\[ERROR\\][^\n]*");
  EXPECT_EQ(std::distance(std::sregex_iterator(log.begin(), log.end(), error), std::sregex_iterator()), 3)
      << log;
  for (std::string reported : {"bad\\.json", "escape\\.json", "/proc/version\\.gif\\.txt"})
    EXPECT_TRUE(std::regex_search(log, std::regex("\\[ERROR\\][^\n]*" + reported))) << reported;
}

}  // namespace
}  // namespace palvin
