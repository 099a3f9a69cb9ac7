// End-to-end: the Linux host app PalvinHost.app in the build tree converting
// real files (install-test starts an installed one through the tool's pick).
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <zlib.h>

#include <chrono>
#include <filesystem>
#include <future>
#include <regex>
#include <thread>
#include <vips/vips8>

#include "requests/conversion_result.h"
#include "requests/request.h"
#include "support/run_tool.h"

namespace palvin {
namespace {

namespace fs = std::filesystem;
using testing::readText;
using testing::TempDir;
using testing::waitFor;
using Status = FinderFileResult::Status;

const std::string kExample = PALVIN_SOURCE_DIR "/examples/capabilities.json";
// Without a session bus: no desktop notification is tried.
testing::ToolRun runHost(const std::string& container, std::vector<std::string> env = {},
                         const std::function<void(int)>& started = {}, std::vector<std::string> args = {}) {
  env.insert(env.end(), {"PALVIN_SHARED_CONTAINER=" + container, "-DBUS_SESSION_BUS_ADDRESS"});
  return testing::runProgram(PALVIN_HOST_APP_PATH, args, env, started);
}

// An image with some detail, so that encoders have work to do.
std::string writeImage(const TempDir& dir, const std::string& name, int width, int height) {
  std::string path = dir.file(name);
  fs::create_directories(fs::path(path).parent_path());
  vips::VImage::gaussnoise(width, height)
      .bandjoin({vips::VImage::xyz(width, height)})
      .cast(VIPS_FORMAT_UCHAR)
      .write_to_file(path.c_str());
  return path;
}

// One second of a 440 Hz tone, 8 kHz mono, made by ffmpeg.
std::string writeWav(const TempDir& dir, const std::string& name) {
  const std::string path = dir.file(name);
  testing::runProgram("/usr/bin/ffmpeg",
                      {"-v", "error", "-f", "lavfi", "-i", "sine=440:duration=1:sample_rate=8000", path});
  return path;
}

// A real PNG whose header is made to claim 20000 x 20000 pixels.
std::string writeBomb(const TempDir& dir, const std::string& name) {
  std::string png = readText(writeImage(dir, name, 8, 8));
  const std::string size = {0, 0, 0x4e, 0x20};  // 20000
  png.replace(16, 8, size + size);
  const auto crc = crc32(0, reinterpret_cast<const Bytef*>(png.data() + 12), 17);  // over "IHDR" and its body
  png.replace(29, 4, std::string{char(crc >> 24), char(crc >> 16), char(crc >> 8), char(crc)});
  return dir.write(name, png);
}

FinderConversionResult resultOf(const std::string& container, const std::string& request) {
  auto decoded = FinderConversionResult::decode(readText(container + "/results/" + request));
  return decoded.ok() ? *decoded : FinderConversionResult{"(no result document)", {}};
}

// The output is a WebP image ("RIFF", size, "WEBP") that decodes to `width` x `height`.
void expectWebp(const std::string& path, int width, int height) {
  std::string bytes = readText(path);
  ASSERT_TRUE(bytes.size() > 12 && bytes.starts_with("RIFF") && bytes.substr(8, 4) == "WEBP") << path;
  vips::VImage image = vips::VImage::new_from_file(path.c_str());
  EXPECT_EQ(std::pair(image.width(), image.height()), std::pair(width, height)) << path;
}

std::size_t filesEndingIn(const std::string& directory, const std::string& ending) {
  std::size_t count = 0;
  for (const auto& entry : fs::directory_iterator(directory))
    count += entry.path().filename().string().ends_with(ending);
  return count;
}

TEST(HostApp, WritesItsOwnCatalogueUnlessTheSameIsThere) {
  TempDir dir;
  const std::string container = dir.file("container"), catalogue = container + "/capabilities.json";
  dir.write("container/capabilities.json", readText(kExample));
  // The host app replaces a catalogue that differs from its own; its own
  // passes the check, with or without ffmpeg, and is not rewritten when equal.
  for (const std::string& path :
       {std::string("PATH=/nonexistent"), "PATH=" + std::string(std::getenv("PATH"))}) {
    ASSERT_EQ(runHost(container, {path}).exitCode, 0);
    auto check = testing::runTool({"check", catalogue});
    EXPECT_EQ(check.exitCode, 0) << check.out;
    EXPECT_NE(check.out.find("usable, 0 warning(s)"), std::string::npos) << check.out;
    EXPECT_EQ(readText(catalogue).find("\"mp3\"") == std::string::npos, path == "PATH=/nonexistent");
  }
  const auto installed = fs::last_write_time(catalogue);
  ASSERT_EQ(runHost(container).exitCode, 0);
  EXPECT_EQ(fs::last_write_time(catalogue), installed);
}

// One request per target; every file that can't be converted fails alone,
// with its reason, and leaves nothing behind.
TEST(HostApp, ConvertsRealFilesAndRefusesUntrustedOnesOneByOne) {
  TempDir dir, elsewhere;
  const std::string container = dir.file("container"), files = dir.file("Files");
  const std::string png = writeImage(dir, "Files/fine.png", 40, 30), wav = writeWav(dir, "Files/tone.wav");
  const std::string corrupt =
      dir.write("Files/corrupt.png", readText(writeImage(dir, "Files/whole.png", 300, 200)).substr(0, 3000));
  ::mkfifo((files + "/pipe.png").c_str(), 0600);
  fs::create_directory(files + "/folder.png");
  fs::create_symlink(writeImage(elsewhere, "real.png", 8, 8), files + "/link.v2.png");
  const std::string bomb = writeBomb(dir, "Files/bomb.png");
  dir.write("Files/fine.webp", "mine");
  dir.write("Files/fine 2.webp", "mine too");
  // clang-format off
  const std::vector<std::tuple<std::string, std::string, std::string>> cases = {  // path, source, outcome
      {png, "png", "fine 3.webp"},  // never over a file that is there
      {files + "/link.v2.png", "png", "link.v2.webp"},  // beside the link, not beside what it points to
      {corrupt, "png", "read error"},
      {bomb, "png", "image too large: 20000 x 20000 pixels"},
      {files + "/pipe.png", "png", "a FIFO, not a regular file"},
      {"/dev/null", "png", "a device, not a regular file"},
      {files + "/gone.png", "png", "No such file or directory"},
      {files + "/folder.png", "png", "a directory, not a regular file"},
      {"Files/fine.png", "png", "not an absolute path"},
      {png + std::string(1, '\0') + "x", "png", "the path holds a NUL byte"},
      {png, "mp3", "this host app does not convert mp3 to webp"},
  };
  // clang-format on
  FinderConversionRequest images{"webp", {}};
  for (const auto& [path, source, outcome] : cases) images.files.push_back({path, source});
  dir.write("container/requests/images.json", *images.encode());
  dir.write("container/requests/sound.json", *FinderConversionRequest{"mp3", {{wav, "wav"}}}.encode());
  dir.write("container/requests/unknown.json", *FinderConversionRequest{"exe", {{png, "png"}}}.encode());
  dir.write("container/requests/bad.json", R"({"targetFormatId":1,"files":[]})");
  dir.write("container/requests/.AB12.json", "{");  // a write under way
  dir.write("container/host-app.log", "2026-11-23T09:00:00.000Z [INFO] torn by a ki");

  auto run = runHost(container);
  ASSERT_EQ(run.exitCode, 0) << run.err;
  auto result = resultOf(container, "images.json");
  ASSERT_EQ(result.files.size(), cases.size());
  for (std::size_t i = 0; i < cases.size(); ++i) {
    const auto& [path, source, outcome] = cases[i];
    const auto& file = result.files[i];
    EXPECT_EQ(file.status, outcome.ends_with(".webp") ? Status::converted : Status::failed) << path;
    EXPECT_NE((file.outputPath.empty() ? file.error : file.outputPath).find(outcome), std::string::npos)
        << file.error;
    if (file.status == Status::converted) {
      EXPECT_EQ(fs::path(file.outputPath).parent_path(), files);
    }
  }
  expectWebp(files + "/link.v2.webp", 8, 8);
  EXPECT_EQ(readText(files + "/fine.webp") + readText(files + "/fine 2.webp"), "minemine too");
  EXPECT_EQ(filesEndingIn(files, ".tmp"), 0u);
  EXPECT_FALSE(fs::exists(files + "/corrupt.webp") || fs::exists(files + "/bomb.webp"));

  auto sound = resultOf(container, "sound.json");
  ASSERT_EQ(sound.count(Status::converted), 1u) << sound.files.at(0).error;
  auto probe =
      testing::runProgram("/usr/bin/ffprobe", {"-v", "error", "-show_entries", "format=format_name,duration",
                                               "-of", "csv=p=0", sound.files[0].outputPath});
  EXPECT_TRUE(std::regex_match(probe.out, std::regex("mp3,1\\.[01]\\d*\n"))) << probe.out << probe.err;
  EXPECT_EQ(resultOf(container, "unknown.json").files.at(0).error,
            "this host app does not convert png to exe");
  EXPECT_EQ(readText(container + "/requests/failed/bad.json"), R"({"targetFormatId":1,"files":[]})");
  EXPECT_EQ(readText(container + "/requests/.AB12.json"), "{");
  // The torn line is ended before the next one; the failures are logged.
  const std::string log = readText(container + "/host-app.log");
  EXPECT_TRUE(std::regex_search(log, std::regex("^[^\n]*torn by a ki\n\\d{4}-\\d\\d-\\d\\dT"))) << log;
  EXPECT_TRUE(std::regex_search(log, std::regex("\\[ERROR\\] Rejected request bad\\.json: targetFormatId")))
      << log;

  auto listing = testing::runTool({"requests", "--container", container}, {"NO_COLOR=1"});
  EXPECT_EQ(listing.exitCode, 0);
  EXPECT_NE(listing.out.find("3 result document(s)"), std::string::npos) << listing.out;
  EXPECT_NE(listing.out.find("/dev/null  failed: a device, not a regular file\n"), std::string::npos)
      << listing.out;
}

// An idle time the host app can't keep is refused before it starts.
TEST(HostApp, RefusesAnIdleExitItCannotKeep) {
  TempDir dir;
  for (const char* seconds : {"", "0", "86401", "5s"}) {
    std::vector<std::string> args{"--watch", "--idle-exit", seconds};
    if (*seconds == '\0') args.pop_back();
    auto run = runHost(dir.file("container"), {}, {}, args);
    EXPECT_EQ(run.exitCode, 2) << seconds;
    EXPECT_NE(run.err.find("--idle-exit"), std::string::npos) << run.err;
  }
  EXPECT_EQ(runHost(dir.file("container"), {}, {}, {"--idle-exit", "5"}).exitCode, 2);  // without --watch
}

std::string requestOfImages(const TempDir& dir, const std::string& folder, int count) {
  FinderConversionRequest request{"webp", {}};
  for (int i = 0; i < count; ++i) {
    request.files.push_back({writeImage(dir, folder + "/" + std::to_string(i) + ".png", 600, 450), "png"});
  }
  return *request.encode();
}

// Killed with SIGKILL mid-request, stopped with SIGTERM mid-request, or racing
// another instance: every file ends up converted exactly once.
TEST(HostApp, KilledOrStoppedInstancesLoseNothing) {
  TempDir dir;
  const std::string container = dir.file("container"), requests = container + "/requests";
  dir.write("container/requests/Killed.json", requestOfImages(dir, "Killed", 40));
  std::atomic<int> pid{0};
  auto killed =
      std::async(std::launch::async, [&] { return runHost(container, {}, [&](int p) { pid = p; }); });
  ASSERT_TRUE(waitFor([&] { return resultOf(container, "Killed.json").count(Status::converted) > 0; }));
  ::kill(pid, SIGKILL);
  EXPECT_EQ(killed.get().exitCode, 128 + SIGKILL);
  ASSERT_TRUE(fs::exists(requests + "/processing/Killed.json"));

  // A watching instance takes the abandoned claim over, then one that arrives.
  auto watching = std::async(std::launch::async,
                             [&] { return runHost(container, {}, [&](int p) { pid = p; }, {"--watch"}); });
  ASSERT_TRUE(waitFor([&] { return resultOf(container, "Killed.json").count(Status::pending) == 0; }));
  fs::rename(dir.write("container/.stopped", requestOfImages(dir, "Stopped", 40)),
             requests + "/Stopped.json");
  ASSERT_TRUE(waitFor([&] { return resultOf(container, "Stopped.json").count(Status::converted) > 0; }));
  ::kill(pid, SIGTERM);
  EXPECT_EQ(watching.get().exitCode, 0);
  EXPECT_TRUE(fs::exists(requests + "/Stopped.json"));  // returned unfinished
  EXPECT_GT(resultOf(container, "Stopped.json").count(Status::pending), 0u);

  // The instance the systemd path unit starts (watching, leaving when idle)
  // and the one the extension starts (leaving once nothing is left) finish
  // it and take twenty more, each exactly once.
  for (int i = 0; i < 20; ++i)
    dir.write("container/requests/Race" + std::to_string(i) + ".json",
              requestOfImages(dir, "Race" + std::to_string(i), 1));
  auto service = std::async(std::launch::async, [&] {
    return runHost(container, {}, [&](int p) { pid = p; }, {"--watch", "--idle-exit", "1"});
  });
  EXPECT_EQ(runHost(container).exitCode, 0);
  if (service.wait_for(std::chrono::seconds(60)) != std::future_status::ready) {
    ::kill(pid, SIGKILL);
    ADD_FAILURE() << "the watching instance did not leave when idle";
  }
  EXPECT_EQ(service.get().exitCode, 0);
  for (int i = 0; i < 20; ++i)
    EXPECT_EQ(filesEndingIn(dir.file("Race" + std::to_string(i)), ".webp"), 1u) << "Race" << i;
  for (const std::string folder : {"Killed", "Stopped", "Race0", "Race19"}) {
    auto result = resultOf(container, folder + ".json");
    EXPECT_EQ(result.count(Status::converted), result.files.size()) << folder;
    for (const auto& file : result.files) expectWebp(file.outputPath, 600, 450);
    EXPECT_EQ(filesEndingIn(dir.file(folder), ".tmp"), 0u);
  }
  // A stop converts nothing twice (only a SIGKILL between an output's rename
  // and its record could).
  EXPECT_EQ(filesEndingIn(dir.file("Stopped"), ".webp"), 40u);
  EXPECT_TRUE(fs::is_empty(requests + "/processing"));
  // A result written when the SIGKILL came may leave its temporary file.
  EXPECT_EQ(filesEndingIn(container + "/results", ".json"), 22u);
  const std::string log = readText(container + "/host-app.log");
  EXPECT_NE(log.find("[WARN] Recovered request Killed.json"), std::string::npos);
  EXPECT_NE(log.find("[INFO] Idle for 1 s, exiting"), std::string::npos);
}

}  // namespace
}  // namespace palvin

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  if (VIPS_INIT(argv[0]) != 0) return 1;
  return RUN_ALL_TESTS();
}
