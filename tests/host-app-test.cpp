// End-to-end: the sample host app PalvinHost.app in the build tree, started by
// the tool through the real launch path and on its own.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <thread>

#include "requests/request.h"
#include "support/run_tool.h"

namespace palvin {
namespace {

namespace fs = std::filesystem;
using testing::readWholeFile;
using testing::runProgram;
using testing::TempDir;

const std::string kExample = PALVIN_SOURCE_DIR "/examples/capabilities.json";

// The request files waiting in `directory`, as the host app sees them.
std::vector<std::string> requestFiles(const std::string& directory) {
  std::vector<std::string> out;
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(directory, ignored)) {
    std::string name = entry.path().filename().string();
    if (name[0] != '.' && entry.path().extension() == ".json") out.push_back(name);
  }
  return out;
}

std::size_t lineCount(const std::string& text) {
  return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

// The bound only keeps a broken host app from hanging the suite.
bool eventually(const std::function<bool()>& done) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

std::string writeRequest(const TempDir& dir, const FinderConversionRequest& request) {
  std::string name = newRequestFileName();
  dir.write("container/requests/" + name, *request.encode());
  return name;
}

TEST(HostApp, PickFromTheBuildTreeStartsTheHostAppWhichConsumesTheRequest) {
  TempDir dir;
  const std::string container = dir.file("container");
  const std::string requests = container + "/requests";
  dir.write("container/capabilities.json", readWholeFile(kExample));
  const std::string photo = dir.write("Files/photo.png", "x");

  // Through the link at the top of the build tree: the tool still knows its
  // bundle inside PalvinHost.app and starts the host app.
  auto run =
      runProgram(PALVIN_TOOL_LINK, {"menu", "--container", container, "--pick", "1", photo}, {"NO_COLOR=1"});
  ASSERT_EQ(run.exitCode, 0) << run.err;
  EXPECT_EQ(run.out.find("host app"), std::string::npos) << "the launch failed:\n" << run.out;
  const std::string arrow = "file(s) \xE2\x86\x92 ";
  auto at = run.out.find(arrow);
  ASSERT_NE(at, std::string::npos) << run.out;
  at += arrow.size();
  const std::string target = run.out.substr(at, run.out.find('\n', at) - at);

  const std::string result = photo + "." + target + ".txt";
  ASSERT_TRUE(eventually([&] {
    return fs::exists(result) && requestFiles(requests).empty() &&
           requestFiles(requests + "/processing").empty();
  }));
  std::string note = readWholeFile(result);
  EXPECT_EQ(lineCount(note), 1u) << note;
  EXPECT_NE(note.find(photo + " (png) to " + target), std::string::npos) << note;
  EXPECT_TRUE(fs::is_empty(requests + "/processing"));
  EXPECT_FALSE(fs::exists(requests + "/failed"));
  EXPECT_EQ(readWholeFile(container + "/capabilities.json"), readWholeFile(kExample));
}

TEST(HostApp, TwoInstancesStartedTogetherTakeEveryRequestExactlyOnce) {
  TempDir dir;
  const std::string container = dir.file("container");
  std::vector<std::string> sources;
  for (int i = 0; i < 200; ++i) {
    sources.push_back(dir.write("Files/f" + std::to_string(i) + ".png", "x"));
    writeRequest(dir, {"webp", {{sources.back(), "png"}}});
  }

  std::vector<testing::ToolRun> runs(2);
  std::vector<std::thread> hosts;
  for (auto& run : runs) {
    hosts.emplace_back([&run, &container] {
      run = runProgram(PALVIN_HOST_APP_PATH, {}, {"PALVIN_SHARED_CONTAINER=" + container});
    });
  }
  for (auto& host : hosts) host.join();

  for (const auto& run : runs) EXPECT_EQ(run.exitCode, 0) << run.err;
  for (const auto& source : sources) EXPECT_EQ(lineCount(readWholeFile(source + ".webp.txt")), 1u) << source;
  EXPECT_TRUE(requestFiles(container + "/requests").empty());
  EXPECT_TRUE(fs::is_empty(container + "/requests/processing"));
  std::string log = readWholeFile(container + "/host-app.log");
  std::size_t handled = 0;
  for (auto at = log.find("] Handled request "); at != std::string::npos;
       at = log.find("] Handled request ", at + 1)) {
    ++handled;
  }
  EXPECT_EQ(handled, sources.size());
  EXPECT_EQ(log.find("[ERROR]"), std::string::npos);
  // A fresh container gets the host app's catalogue.
  EXPECT_EQ(readWholeFile(container + "/capabilities.json"), readWholeFile(kExample));
}

TEST(HostApp, BadRequestsAreSetAsideAndTheRestIsHandled) {
  TempDir dir;
  const std::string container = dir.file("container");
  const std::string requests = container + "/requests";
  const std::string wrongType = R"({"targetFormatId":1,"files":[]})";
  dir.write("container/requests/bad.json", wrongType);
  dir.write("container/requests/escape.json", *FinderConversionRequest{"../x/y", {}}.encode());
  // A file whose directory can't take a result, even for root.
  const std::string photo = dir.write("Files/ok.png", "x");
  writeRequest(dir, {"gif", {{"/proc/version", "txt"}, {photo, "png"}}});
  // Not requests: a write under way and another kind of file.
  dir.write("container/requests/.AB12.json", "{");
  dir.write("container/requests/notes.txt", "keep");

  auto run = runProgram(PALVIN_HOST_APP_PATH, {"--activate"}, {"PALVIN_SHARED_CONTAINER=" + container});
  ASSERT_EQ(run.exitCode, 0) << run.err;
  EXPECT_NE(run.out.find(container), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("3 pending"), std::string::npos) << run.out;

  EXPECT_EQ(readWholeFile(requests + "/failed/bad.json"), wrongType);
  EXPECT_TRUE(fs::exists(requests + "/failed/escape.json"));
  EXPECT_EQ(lineCount(readWholeFile(photo + ".gif.txt")), 1u);
  EXPECT_TRUE(requestFiles(requests).empty());
  EXPECT_TRUE(fs::exists(requests + "/.AB12.json"));
  EXPECT_EQ(readWholeFile(requests + "/notes.txt"), "keep");
  std::string log = readWholeFile(container + "/host-app.log");
  for (const char* reported : {"bad.json", "escape.json", "/proc/version.gif.txt"}) {
    auto at = log.find(reported);
    ASSERT_NE(at, std::string::npos) << reported << "\n" << log;
    auto start = log.rfind('\n', at) + 1;  // 0 on the first line
    EXPECT_NE(log.substr(start, log.find('\n', at) - start).find("[ERROR]"), std::string::npos) << reported;
  }
}

TEST(HostApp, CatalogueIsReplacedOnlyWhenOlderThanTheBundledOne) {
  const auto bundled = fs::last_write_time(fs::path(PALVIN_HOST_APP_PATH).parent_path() /
                                           "Contents/Resources/capabilities.json");
  const struct {
    std::chrono::hours shift;
    bool replaced;
  } cases[] = {{std::chrono::hours(-1), true}, {std::chrono::hours(1), false}};
  for (const auto& c : cases) {
    TempDir dir;
    const std::string installed = dir.write("container/capabilities.json", "{}");
    fs::last_write_time(installed, bundled + c.shift);
    auto run = runProgram(PALVIN_HOST_APP_PATH, {}, {"PALVIN_SHARED_CONTAINER=" + dir.file("container")});
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(readWholeFile(installed) == readWholeFile(kExample), c.replaced) << c.shift.count();
  }
}

}  // namespace
}  // namespace palvin
