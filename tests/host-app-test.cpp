// End-to-end: the Linux host app PalvinHost.app in the build tree converting
// real files made here, each output decoded back, and what it tells the
// desktop, seen by a notification service of the test's own
// (install-test starts an installed host app through the tool's pick).
#include <cairo-pdf.h>
#include <fontconfig/fontconfig.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <zlib.h>

#include <chrono>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <future>
#include <random>
#include <regex>
#include <thread>
#include <vips/vips8>

#include "catalogue/capabilities.h"
#include "requests/conversion_result.h"
#include "requests/request.h"
#include "support/notification_service.h"
#include "support/run_tool.h"

namespace palvin {
namespace {

namespace fs = std::filesystem;
using testing::readText;
using testing::TempDir;
using testing::waitFor;
using Status = FinderFileResult::Status;

const std::string kExample = PALVIN_SOURCE_DIR "/examples/capabilities.json";
// Without a session bus, unless `env` names one: no desktop notification is tried.
testing::ToolRun runHost(const std::string& container, std::vector<std::string> env = {},
                         const std::function<void(int)>& started = {}, std::vector<std::string> args = {}) {
  env.insert(env.begin(), {"PALVIN_SHARED_CONTAINER=" + container, "-DBUS_SESSION_BUS_ADDRESS"});
  return testing::runProgram(PALVIN_HOST_APP_PATH, args, env, started);
}

// An image with some detail, so that encoders have work to do.
std::string writeImage(const TempDir& dir, const std::string& name, int width, int height) {
  const std::string path = dir.write(name, "");
  vips::VImage::gaussnoise(width, height)
      .bandjoin({vips::VImage::xyz(width, height)})
      .cast(VIPS_FORMAT_UCHAR)
      .write_to_file(path.c_str());
  return path;
}

// A logo: the left half transparent (black underneath), the right half opaque red.
std::string writeLogo(const TempDir& dir, const std::string& name) {
  const std::string path = dir.write(name, "");
  vips::VImage clear = vips::VImage::black(32, 48, vips::VImage::option()->set("bands", 4));
  clear.join(clear.new_from_image({255, 0, 0, 255}), VIPS_DIRECTION_HORIZONTAL)
      .copy(vips::VImage::option()->set("interpretation", "srgb"))
      .write_to_file(path.c_str());
  return path;
}

// Made by ffmpeg from its own test sources: one second of a 440 Hz tone, or
// a second of its test picture with the tone as MP4.
std::string writeMedia(const TempDir& dir, const std::string& name) {
  const std::string path = dir.write(name, "");
  std::vector<std::string> args = {"-v",    "error", "-f",
                                   "lavfi", "-i",    "sine=440:duration=1:sample_rate=8000"};
  if (name.ends_with(".mp4")) {
    args.insert(args.end(), {"-f", "lavfi", "-i", "testsrc=size=64x48:rate=10:duration=1", "-c:v", "libx264",
                             "-preset", "ultrafast", "-c:a", "aac"});
  }
  args.insert(args.end(), {"-y", path});
  testing::runProgram("/usr/bin/ffmpeg", args);
  return path;
}

// `hours` of CD-quality silence as WAV: a header, and samples that are a hole
// in a sparse file, so that ffmpeg works long on a file that costs no disk.
std::string writeLongWav(const TempDir& dir, const std::string& name, std::uint32_t hours) {
  // PCM, 2 channels, 44100 Hz, 176400 bytes a second, 4 bytes a frame, 16 bits.
  std::string header("RIFF....WAVEfmt \x10\0\0\0\x01\0\x02\0\x44\xAC\0\0\x10\xB1\x02\0\x04\0\x10\0data....",
                     44);
  const std::uint32_t bytes = hours * 3600 * 176400, riff = 36 + bytes;
  std::memcpy(header.data() + 4, &riff, 4);
  std::memcpy(header.data() + 40, &bytes, 4);
  fs::resize_file(dir.write(name, header), header.size() + bytes);
  return dir.file(name);
}

// A three-page A4 document, two lines of text a page, drawn with cairo.
std::string writePdf(const TempDir& dir, const std::string& name) {
  const std::string path = dir.write(name, "");
  cairo_surface_t* surface = cairo_pdf_surface_create(path.c_str(), 595.276, 841.89);
  cairo_t* cr = cairo_create(surface);
  cairo_set_font_size(cr, 20);
  for (const char* page : {"The first page", "Page two, after a break", "The third and last page"}) {
    cairo_move_to(cr, 72, 100);
    cairo_show_text(cr, page);
    cairo_move_to(cr, 72, 140);
    cairo_show_text(cr, "with a second line");
    cairo_show_page(cr);
  }
  cairo_destroy(cr);
  cairo_surface_destroy(surface);
  // The fonts cairo picked, and fontconfig's set of fonts, stay cached until
  // these; LeakSanitizer would count them.
  cairo_debug_reset_static_data();
  FcFini();
  return path;
}

// What a user would see of an output, decoded: an image's loader, size and
// the colours left and right of its middle; a medium's codecs, container and
// whole seconds (ffprobe); a text as it is.
std::string looks(const std::string& path) {
  if (path.ends_with(".txt")) return readText(path);
  if (path.ends_with(".mp3") || path.ends_with(".mkv")) {
    auto probe = testing::runProgram(
        "/usr/bin/ffprobe", {"-v", "error", "-show_entries", "stream=codec_name:format=format_name,duration",
                             "-of", "default=nw=1:nk=1", path});
    return std::regex_replace(std::regex_replace(probe.out, std::regex("\\.\\d+\n$"), "s"), std::regex("\n"),
                              " ");
  }
  vips::VImage image = vips::VImage::new_from_file(path.c_str());
  auto colour = [&](int x) {
    auto p = image.getpoint(x, image.height() / 2);
    const char* names[] = {"black", "blue", "green", "cyan", "red", "magenta", "yellow", "white"};
    return p.size() == 4 && p[3] < 128 ? "clear" : names[(p[0] > 127) * 4 + (p[1] > 127) * 2 + (p[2] > 127)];
  };
  return image.get_string("vips-loader") + std::string(" ") + std::to_string(image.width()) + "x" +
         std::to_string(image.height()) + " " + colour(image.width() / 4) + "|" +
         colour(image.width() * 3 / 4);
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

std::size_t filesEndingIn(const std::string& directory, const std::string& ending) {
  std::size_t count = 0;
  for (const auto& entry : fs::directory_iterator(directory))
    count += entry.path().filename().string().ends_with(ending);
  return count;
}

// One request per row, each output decoded as a user would see it, and the
// notice that ends a request where a row names it. A file that can't be
// converted fails alone, with its reason, and leaves nothing behind; a corrupt
// file rides along where a row asks.
TEST(HostApp, ConvertsEveryFamilyRightAndRefusesWhatItMustNot) {
  TempDir dir, elsewhere;
  testing::NotificationService desktop;
  const std::string container = dir.file("container"), files = dir.file("Files");
  const std::string logo = writeLogo(dir, "Logo/logo.png"), pdf = writePdf(dir, "Doc/doc.pdf");
  const std::string torn = dir.write("Broken/torn & broken.png", readText(logo).substr(0, 60));
  const std::string pdftotext = testing::runProgram("/usr/bin/pdftotext", {pdf, "-"}).out;
  const std::string corrupt =
      dir.write("Files/corrupt.png", readText(writeImage(dir, "Files/whole.png", 300, 200)).substr(0, 3000));
  ::mkfifo((files + "/pipe.png").c_str(), 0600);
  fs::create_directory(files + "/folder.png");
  fs::create_directory(dir.file("Linked"));
  fs::create_symlink(writeLogo(elsewhere, "real.png"), dir.file("Linked/link.v2.png"));
  const std::string bomb = writeBomb(dir, "Files/bomb.png");
  struct Row {
    std::string what, source, sourceFormat, target, output, looks,
        summary;  // no output: `looks` is the error
    bool withTorn = false;
  };
  // clang-format off
  const std::vector<Row> rows = {
      {"image: the first output takes the plain name", logo, "png", "webp", "logo.webp", "webpload 64x48 clear|red", ""},
      {"image: the next one \" 2\"", logo, "png", "webp", "logo 2.webp", "webpload 64x48 clear|red", "Converted 1 file to WebP"},
      {"image: transparency on white in JPEG", logo, "png", "jpeg", "logo.jpg", "jpegload 64x48 white|red", ""},
      {"image: one file of two fails", logo, "png", "tiff", "logo.tiff", "tiffload 64x48 clear|red", "Converted 1 file to TIFF, 1 failed", true},
      {"image: beside the link, not beside what it points to", dir.file("Linked/link.v2.png"), "png", "webp", "link.v2.webp", "webpload 64x48 clear|red", ""},
      {"PDF: the first page at 150 dpi", pdf, "pdf", "png", "doc.png", "pngload 1240x1754 white|white", ""},
      {"PDF: the first page as JPEG", pdf, "pdf", "jpeg", "doc.jpg", "jpegload 1240x1754 white|white", ""},
      {"PDF: every page, as pdftotext", pdf, "pdf", "txt", "doc.txt", pdftotext, "Converted 1 file to Plain Text"},
      {"audio", writeMedia(dir, "Sound/tone.wav"), "wav", "mp3", "tone.mp3", "mp3 mp3 1s", ""},
      {"video", writeMedia(dir, "Video/clip.mp4"), "mp4", "mkv", "clip.mkv", "h264 aac matroska,webm 1s", "Converted 1 file to Matroska"},
      {"truncated", corrupt, "png", "webp", "", "read error", "Could not convert 1 file to WebP"},
      {"a decompression bomb", bomb, "png", "webp", "", "image too large: 20000 x 20000 pixels", ""},
      {"a FIFO", files + "/pipe.png", "png", "webp", "", "a FIFO, not a regular file", ""},
      {"a device", "/dev/null", "png", "webp", "", "a device, not a regular file", ""},
      {"gone", files + "/gone.png", "png", "webp", "", "No such file or directory", ""},
      {"a folder", files + "/folder.png", "png", "webp", "", "a directory, not a regular file", ""},
      {"a relative path", "Logo/logo.png", "png", "webp", "", "not an absolute path", ""},
      {"a NUL byte", logo + std::string(1, '\0') + "x", "png", "webp", "", "the path holds a NUL byte", ""},
      {"a conversion not in the table", logo, "mp3", "webp", "", "this host app does not convert mp3 to webp", ""},
      {"truncated, once more", corrupt, "png", "webp", "", "read error", ""},
  };
  // clang-format on
  ASSERT_EQ(std::count(pdftotext.begin(), pdftotext.end(), '\f'), 3) << pdftotext;
  auto name = [](std::size_t i) { return "row" + std::to_string(10 + i) + ".json"; };
  for (std::size_t i = 0; i < rows.size(); ++i) {
    FinderConversionRequest request{rows[i].target, {{rows[i].source, rows[i].sourceFormat}}};
    if (rows[i].withTorn) request.files.push_back({torn, "png"});
    dir.write("container/requests/" + name(i), *request.encode());
  }
  dir.write("container/requests/bad.json", R"({"targetFormatId":1,"files":[]})");
  dir.write("container/host-app.log", "2026-11-23T09:00:00.000Z [INFO] torn by a ki");
  auto run = runHost(container, {desktop.env()});
  ASSERT_EQ(run.exitCode, 0) << run.err;
  auto outcomes = desktop.notices();
  std::erase_if(outcomes, [](const auto& notice) {  // progress, with a Cancel, and bad.json's
    return !notice.actions.empty() || notice.summary == "A conversion request was rejected";
  });
  ASSERT_EQ(outcomes.size(), rows.size());
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const Row& row = rows[i];
    const auto file = resultOf(container, name(i)).files.at(0);
    const std::string seen =
        file.outputPath.empty() ? file.error : file.outputPath + ": " + looks(file.outputPath);
    const std::string beside = fs::path(row.source).parent_path() / row.output;
    EXPECT_NE(seen.find(row.output.empty() ? row.looks : beside + ": " + row.looks), std::string::npos)
        << row.what << ": " << seen;
    EXPECT_TRUE(row.summary.empty() || outcomes[i].summary == row.summary)
        << row.what << ": " << outcomes[i].summary;
  }
  // Each file's reason is its own: libvips' messages don't pile up.
  EXPECT_EQ(resultOf(container, name(rows.size() - 1)).files.at(0).error,
            resultOf(container, name(10)).files.at(0).error);
  EXPECT_EQ(outcomes[3].body, "torn &amp; broken.png: " + resultOf(container, name(3)).files.at(1).error);
  EXPECT_EQ(filesEndingIn(files, ".tmp") + filesEndingIn(files, ".webp"), 0u);
  EXPECT_EQ(readText(container + "/requests/failed/bad.json"), R"({"targetFormatId":1,"files":[]})");
  // The torn line is ended before the next one; the failures are logged.
  const std::string log = readText(container + "/host-app.log");
  EXPECT_TRUE(std::regex_search(log, std::regex("^[^\n]*torn by a ki\n\\d{4}-\\d\\d-\\d\\dT"))) << log;
  EXPECT_TRUE(std::regex_search(log, std::regex("\\[ERROR\\] Rejected request bad\\.json: targetFormatId")))
      << log;

  auto listing = testing::runTool({"requests", "--container", container}, {"NO_COLOR=1"});
  EXPECT_EQ(listing.exitCode, 0);
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

// 300 signals at random moments while 20 requests of 5 images convert, then
// two instances racing to finish: every request has its result, every source
// exactly one output that decodes, and nothing temporary is left anywhere.
// Every tenth signal is a SIGTERM, which returns the request under way; the
// rest are SIGKILLs, whose claims a later run recovers. Every third run
// watches.
TEST(HostApp, ThreeHundredKillsLeaveNoDuplicateNoLeftoverAndLoseNothing) {
  TempDir dir;
  const std::string container = dir.file("container"), folder = dir.file("K"),
                    log = container + "/host-app.log";
  // Big enough that the 100 can't all be done between two kills.
  const std::string image = readText(writeImage(dir, "image.png", 1000, 750));
  for (int r = 0; r < 20; ++r) {
    FinderConversionRequest request{"webp", {}};
    for (int i = r * 5; i < r * 5 + 5; ++i)
      request.files.push_back({dir.write("K/" + std::to_string(i) + ".png", image), "png"});
    dir.write("container/requests/" + std::to_string(r) + ".json", *request.encode());
  }
  std::mt19937 random(2211);
  for (int signals = 0; signals < 300; ++signals) {
    std::atomic<int> pid{0};
    const bool term = signals % 10 == 9;
    const std::vector<std::string> args =
        signals % 3 == 0 ? std::vector<std::string>{"--watch"} : std::vector<std::string>{};
    auto run = std::async(std::launch::async, [&] {
      return runHost(
          container, {}, [&](int p) { pid = p; }, args);
    });
    // Once it is at work (it claimed or recovered a request, however slow its
    // start), at a random moment.
    auto working = [&] { return filesEndingIn(container + "/requests", ".json") + readText(log).size(); };
    const auto before = working();
    waitFor([&] {
      return working() != before || run.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(random() % 40));
    ASSERT_NE(run.wait_for(std::chrono::seconds(0)), std::future_status::ready)
        << "all done after " << signals;
    ASSERT_TRUE(waitFor([&] { return pid != 0; }));
    ::kill(pid, term ? SIGTERM : SIGKILL);
    // A SIGTERM before the handler is set (nothing claimed yet) ends it at once.
    const int code = run.get().exitCode;
    ASSERT_TRUE(code == (term ? 0 : 128 + SIGKILL) || (term && code == 128 + SIGTERM)) << code;
  }
  // The instance the systemd path unit starts (watching, leaving when idle)
  // and the one the extension starts (leaving once nothing is left) finish.
  auto service = std::async(std::launch::async, [&] {
    return runHost(container, {}, {}, {"--watch", "--idle-exit", "1"});
  });
  ASSERT_EQ(runHost(container).exitCode, 0);
  ASSERT_EQ(service.get().exitCode, 0);
  std::vector<std::string> wrong, left;
  for (int i = 0; i < 100; ++i) {
    const auto result = resultOf(container, std::to_string(i / 5) + ".json");
    const std::string expected = folder + "/" + std::to_string(i) + ".webp";
    if (result.files.size() != 5 || result.files[i % 5].outputPath != expected ||
        !looks(expected).starts_with("webpload 1000x750 ")) {
      wrong.push_back(std::to_string(i));
    }
  }
  EXPECT_EQ(wrong, std::vector<std::string>{});
  EXPECT_EQ(filesEndingIn(folder, ".webp"), 100u);  // no "<i> 2.webp"
  for (const std::string& place : {folder, container + "/results", container + "/requests/processing"}) {
    for (const auto& entry : fs::directory_iterator(place)) {
      if (entry.path().filename().string().starts_with(".") || place.ends_with("processing"))
        left.push_back(entry.path());
    }
  }
  EXPECT_EQ(left, std::vector<std::string>{});
  EXPECT_NE(readText(log).find("[WARN] Recovered request "), std::string::npos);
  EXPECT_NE(readText(log).find("[INFO] Idle for 1 s, exiting"), std::string::npos);
}

// Another user who can write in the source's folder swaps the names there
// for links to the user's private file while the host app, stopped by its
// test seam, has its output open; or the host app is killed right after
// publishing an output. The private file stays untouched, the output is a
// file of its own no wider than its 0600 source, and there is at most one. A
// named scratch file that was swapped is dropped, not linked.
TEST(HostApp, NoSwappedNameIsFollowedAndNoKillMakesASecondOutput) {
  // clang-format off
  const std::vector<std::tuple<std::string, bool, std::string>> rows = {  // seam, killed there (else names swapped), output
      {"before-write", false, "x 2.webp"}, {"before-write,named-scratch", false, ""}, {"after-publish", true, "x.webp"}};
  // clang-format on
  for (const auto& [seam, killed, output] : rows) {
    TempDir dir;
    const std::string container = dir.file("container"), shared = dir.file("Shared");
    const std::string secret = dir.write("home/.secret", "the user's own"),
                      source = writeLogo(dir, "Shared/x.png");
    fs::permissions(source, fs::perms::owner_read | fs::perms::owner_write);
    dir.write("container/requests/r.json", *FinderConversionRequest{"webp", {{source, "png"}}}.encode());
    std::atomic<int> pid{0};
    auto run = std::async(std::launch::async, [&, seam = seam] {
      return runHost(container, {"PALVIN_HOST_TEST_SEAM=" + seam}, [&](int p) { pid = p; });
    });
    ASSERT_TRUE(waitFor([&] {
      const std::string stat = pid ? readText("/proc/" + std::to_string(pid) + "/stat") : "";
      return stat.find(") T ") != std::string::npos;
    })) << seam;
    if (killed) {
      ::kill(pid, SIGKILL);
      run.get();
      ASSERT_EQ(runHost(container).exitCode, 0);
    } else {
      for (const auto& entry : fs::directory_iterator(shared)) {
        if (!entry.path().filename().string().starts_with(".palvin-")) continue;
        fs::remove(entry.path());
        fs::create_symlink(secret, entry.path());
      }
      fs::create_symlink(secret, shared + "/x.webp");
      ::kill(pid, SIGCONT);
      ASSERT_EQ(run.get().exitCode, 0);
    }
    EXPECT_EQ(readText(secret), "the user's own") << seam;
    EXPECT_EQ(filesEndingIn(shared, ".tmp"), output.empty() ? 1u : 0u) << seam;  // the attacker's link alone
    const auto file = resultOf(container, "r.json").files.at(0);
    if (output.empty()) {
      EXPECT_NE(file.error.find(" was replaced meanwhile"), std::string::npos) << file.error;
      continue;
    }
    ASSERT_EQ(file.status, Status::converted) << seam << file.error;
    EXPECT_EQ(file.outputPath, shared + "/" + output);
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(file.outputPath)));
    EXPECT_EQ(looks(file.outputPath), "webpload 64x48 clear|red");
    EXPECT_EQ(fs::status(file.outputPath).permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(filesEndingIn(shared, ".webp"), killed ? 1u : 2u) << seam;  // with the attacker's link
  }
}

// A container that another user can change, or that is another user's, is
// refused before anything in it is read or written; the user's own is made
// private, with everything the host app writes in it.
TEST(HostApp, RefusesAContainerNotTheUsersAloneAndKeepsItsOwnPrivate) {
  // clang-format off
  const std::vector<std::tuple<fs::perms, uid_t, std::string>> rows = {  // mode, owner, refusal
      {fs::perms(0770), 0, "others can write in it (mode 0770)"},
      {fs::perms(01777), 0, "others can write in it (mode 1777)"},
      {fs::perms(0700), 65534, "it belongs to user 65534, not to you"},
      {fs::perms(0755), 0, ""},
  };
  // clang-format on
  for (const auto& [mode, owner, refusal] : rows) {
    TempDir dir;
    const std::string container = dir.file("container");
    dir.write("container/requests/a.json",
              *FinderConversionRequest{"webp", {{writeLogo(dir, "a.png"), "png"}}}.encode());
    fs::permissions(container + "/requests", fs::perms::owner_all);  // as the extension makes it
    fs::permissions(container, mode);
    if (owner != 0 && (::geteuid() != 0 || ::chown(container.c_str(), owner, owner) != 0)) continue;
    if (refusal.empty())
      dir.write("container/host-app.log", std::string(300000, 'x') + "\n");  // to be trimmed
    auto run = runHost(container);
    if (!refusal.empty()) {
      EXPECT_EQ(run.exitCode, 1);
      EXPECT_NE(
          run.err.find("Bad owner or permissions on the shared container " + container + ": " + refusal),
          std::string::npos)
          << run.err;
      EXPECT_EQ(std::vector<fs::path>(fs::directory_iterator(container), {}),
                std::vector<fs::path>{container + "/requests"});
      continue;
    }
    EXPECT_EQ(resultOf(container, "a.json").count(Status::converted), 1u);
    std::vector<std::string> wider;
    for (const auto& entry : fs::recursive_directory_iterator(container)) {
      const auto allowed = entry.is_directory() ? fs::perms::owner_all : fs::perms(0600);
      if ((entry.status().permissions() & ~allowed) != fs::perms::none) wider.push_back(entry.path());
    }
    EXPECT_EQ(fs::status(container).permissions(), fs::perms::owner_all);
    EXPECT_LT(fs::file_size(container + "/host-app.log"), 140000u);
    EXPECT_EQ(wider, std::vector<std::string>{});
  }
}

// Requests that can't be read are moved aside once, each with a result
// document the tool lists and a notice; a path that is not UTF-8 fails alone;
// a request's long name costs its files nothing.
TEST(HostApp, RejectedRequestsAreShownAndBadPathsFailAlone) {
  TempDir dir, elsewhere;
  testing::NotificationService desktop;
  const std::string container = dir.file("container"), logo = writeLogo(dir, "Logo/logo.png");
  const std::string good = *FinderConversionRequest{"webp", {{logo, "png"}}}.encode();
  std::string mixed = *FinderConversionRequest{"jpeg", {{logo, "png"}, {"/a/NOT-UTF8.png", "png"}}}.encode();
  mixed.replace(mixed.find("NOT-UTF8"), 8, "\xFF\xFE");
  dir.write("container/requests/bad.json", "{\"targetFormatId\":");
  fs::create_symlink(elsewhere.write("real.json", good), container + "/requests/link.json");
  dir.write("container/requests/mixed.json", mixed);
  const std::string longName = std::string(250, 'L') + ".json";
  dir.write("container/requests/" + longName, good);
  // The named scratch files of file systems without unnamed ones, whose names could grow too long.
  for (int run = 0; run < 2; ++run)
    ASSERT_EQ(runHost(container, {desktop.env(), "PALVIN_HOST_TEST_SEAM=named-scratch"}).exitCode, 0);

  const auto files = resultOf(container, "mixed.json").files;
  EXPECT_EQ(files.at(0).outputPath, dir.file("Logo/logo.jpg"));
  EXPECT_EQ(files.at(1).error, "the path is not valid UTF-8");
  EXPECT_EQ(resultOf(container, longName).files.at(0).outputPath, dir.file("Logo/logo.webp"));
  EXPECT_TRUE(fs::is_symlink(container + "/requests/failed/link.json"));
  EXPECT_EQ(readText(elsewhere.file("real.json")), good);
  std::vector<std::string> rejected;
  for (const auto& notice : desktop.notices()) {
    if (notice.summary == "A conversion request was rejected") rejected.push_back(notice.body);
  }
  EXPECT_EQ(rejected, (std::vector<std::string>{"bad.json: " + resultOf(container, "bad.json").rejected,
                                                "link.json: a symbolic link, not a request file"}));
  // Once each, over two runs, and listed.
  const std::string listing = testing::runTool({"requests", "--container", container}, {"NO_COLOR=1"}).out;
  EXPECT_TRUE(listing.find("  rejected: a symbolic link, not a request file\n") != std::string::npos &&
              listing.find("  rejected: " + resultOf(container, "bad.json").rejected + "\n") !=
                  std::string::npos)
      << listing;
}

// On a container whose disk is full (a 1 MiB tmpfs in a mount namespace of
// the test's own), a request whose result can't be recorded stays claimable,
// the failure is logged (host-app.log, or standard error and the journal),
// and the request is converted once there is room again.
TEST(HostApp, AFullDiskLosesNoRequest) {
  TempDir dir;
  const std::string container = dir.file("container");
  fs::create_directories(container);
  const std::string request =
      dir.write("r.json", *FinderConversionRequest{"webp", {{writeLogo(dir, "logo.png"), "png"}}}.encode());
  // Set up, fill the disk, run, show; make room, run, show.
  const std::string script = R"(set -e; C="$1"; mount -t tmpfs -o size=1m,mode=0700 tmpfs "$C"; "$2"
    cp "$3" "$C/requests/r.json"; dd if=/dev/zero of="$C/filler" bs=4k 2>/dev/null || true
    "$2"; cat "$C/host-app.log"; echo; ls "$C/requests" "$C/results"; rm "$C/filler"; "$2"; cat "$C/results/r.json")";
  auto run = testing::runProgram("/usr/bin/unshare",
                                 {::geteuid() == 0 ? "-m" : "-rm", "--propagation", "private", "sh", "-c",
                                  script, "sh", container, PALVIN_HOST_APP_PATH, request},
                                 {"PALVIN_SHARED_CONTAINER=" + container, "-DBUS_SESSION_BUS_ADDRESS"});
  if (run.err.find("mount: ") != std::string::npos || run.err.find("unshare: ") != std::string::npos)
    GTEST_SKIP() << "no private tmpfs here: " << run.err;
  ASSERT_EQ(run.exitCode, 0) << run.err;
  EXPECT_NE((run.out + run.err)
                .find("Cannot write result: " + container + "/results/r.json: No space left on device"),
            std::string::npos)
      << run.err << run.out;
  // Still waiting in requests/, nothing in results/, then converted.
  EXPECT_NE(run.out.find("\n" + container + "/requests:\nfailed\nprocessing\nr.json\n\n" + container +
                         "/results:\n{"),
            std::string::npos)
      << run.out;
  EXPECT_NE(run.out.find("\"status\":\"converted\",\"outputPath\":\"" +
                         std::regex_replace(dir.file("logo.webp"), std::regex("/"), "\\/")),
            std::string::npos)
      << run.out;
}

// Under a 48 MiB budget a 2000 x 2000 RGB image fits for JPEG and WebP but
// not for HEIC, which is refused with the need and the budget; two such
// images to WebP don't fit together, so the log shows one holding its memory
// only after the other gave it back. (No HEIC is encoded here: libx265 keeps
// a few allocations to process exit, which LeakSanitizer reports.)
TEST(HostApp, AMemoryBudgetSerializesLargeImagesAndRefusesWhatNeverFits) {
  TempDir dir;
  const std::string container = dir.file("container"), logo = writeLogo(dir, "logo.png");
  const std::string one = writeImage(dir, "one.png", 2000, 2000),
                    two = writeImage(dir, "two.png", 2000, 2000);
  const std::vector<std::tuple<std::string, std::vector<std::string>, std::string>> rows = {
      {"jpeg", {one}, "converted"},
      {"heic", {one}, "needs about [0-9]+ MiB of memory; the host app's budget is 48 MiB"},
      {"webp", {one, two, logo}, "converted; converted; converted"}};
  for (const auto& [target, sources, _] : rows) {
    FinderConversionRequest request{target, {}};
    for (const auto& source : sources) request.files.push_back({source, "png"});
    dir.write("container/requests/" + target + ".json", *request.encode());
  }
  ASSERT_EQ(testing::runProgram("/usr/bin/timeout", {"300", PALVIN_HOST_APP_PATH},
                                {"PALVIN_SHARED_CONTAINER=" + container, "-DBUS_SESSION_BUS_ADDRESS",
                                 "PALVIN_HOST_MEMORY_MIB=48"})
                .exitCode,
            0);
  for (const auto& [target, sources, expected] : rows) {
    std::string outcomes;
    for (const auto& file : resultOf(container, target + ".json").files)
      outcomes +=
          (outcomes.empty() ? "" : "; ") + (file.status == Status::converted ? "converted" : file.error);
    EXPECT_TRUE(std::regex_match(outcomes, std::regex(expected))) << target << ": " << outcomes;
  }
  // Holders of the two images' memory, in the log's order: never both.
  const std::string log = readText(container + "/host-app.log");
  std::smatch event;
  int holding = 0, most = 0;
  for (auto at = log.cbegin(); std::regex_search(
           at, log.cend(), event, std::regex(R"(Memory: \S+/(one|two)\.png (holds|gave back))"));
       at = event[0].second)
    most = std::max(most, holding += event[2] == "holds" ? 1 : -1);
  EXPECT_EQ(most, 1) << log;
}

// "Open to set up" starts the host app with --activate: it replaces a
// catalogue unlike its own (leaving its own alone), and the user is told on
// the desktop that it is ready, or what is wrong and what to do.
TEST(HostApp, OpenToSetUpAnswersOnTheDesktop) {
  const std::string ready =
      "It converts (\\d+) formats: choose \xE2\x80\x9C"
      "Convert using Palvin\xE2\x80\x9D on files in your file manager\\.\n";
  const std::string fix =
      "\nMake sure that PalvinHost can write in C, then choose \xE2\x80\x9C"
      "Convert with Palvin \xE2\x80\x94 open to set up\xE2\x80\x9D again\\.";
  const std::string ffmpeg = "PATH=" + std::string(std::getenv("PATH"));
  // clang-format off
  const std::vector<std::tuple<std::string, std::string, int, std::string, std::string>> rows = {  // a file put there first, PATH, exit, summary, body (C: the container)
      {"container/capabilities.json", ffmpeg, 0, "PalvinHost is ready", ready + "Log: C/host-app\\.log"},
      {"container/capabilities.json", "PATH=/nonexistent", 0, "PalvinHost is ready", ready + "Audio and video need ffmpeg: install it, and the next conversion offers them\\.\nLog: C/host-app\\.log"},
      {"container/capabilities.json/x", ffmpeg, 0, "PalvinHost is not set up", "Cannot install the catalogue: C/capabilities\\.json: Is a directory" + fix + "\nLog: C/host-app\\.log"},
      {"container", ffmpeg, 1, "PalvinHost is not set up", "Cannot set up the shared container: C: Not a directory" + fix},
  };
  // clang-format on
  for (const auto& [blocker, path, exitCode, summary, body] : rows) {
    TempDir dir;
    testing::NotificationService desktop;
    const std::string container = dir.file("container"), catalogue = container + "/capabilities.json";
    dir.write(blocker, readText(kExample));
    auto run = runHost(container, {desktop.env(), path}, {}, {"--activate"});
    EXPECT_EQ(run.exitCode, exitCode) << blocker << run.err;
    auto notices = desktop.notices();
    ASSERT_EQ(notices.size(), 1u) << blocker;
    EXPECT_EQ(notices[0].summary, summary) << blocker;
    std::smatch formats;
    const std::regex expected(std::regex_replace(body, std::regex("\\bC\\b"), container));
    EXPECT_TRUE(std::regex_match(notices[0].body, formats, expected)) << notices[0].body;
    if (summary != "PalvinHost is ready") continue;
    auto check = testing::runTool({"check", catalogue});
    EXPECT_NE(check.out.find("usable, 0 warning(s)"), std::string::npos) << check.out;
    EXPECT_EQ(formats[1], std::to_string(FinderCapabilities::decode(readText(catalogue))->formats.size()));
    EXPECT_EQ(readText(catalogue).find("\"mp3\"") == std::string::npos, path == "PATH=/nonexistent");
    const auto installed = fs::last_write_time(catalogue);
    ASSERT_EQ(runHost(container, {path}).exitCode, 0);
    EXPECT_EQ(fs::last_write_time(catalogue), installed);
  }
}

// A request that runs for a while shows one notice, updated in place (as
// ffmpeg gets on), whose Cancel stops it: ffmpeg killed, nothing left behind,
// the files left recorded as cancelled. In the first row no file has ended
// when the notice comes; in the second, one failed at once.
TEST(HostApp, LongRequestsShowProgressAndCancel) {
  // clang-format off
  const std::vector<std::tuple<std::vector<std::string>, std::string, std::string, std::string, std::string>> rows = {  // files (but "gone", of two hours), progress, as listed, outcome, statuses
      {{"long.wav"}, "0 of 1 file", "0 of 1 file(s) done; 0 converted, 0 failed, 1 pending", "Conversion to MP3 cancelled", "cancelled "},
      {{"gone.wav", "long.wav", "long 2.wav"}, "1 of 3 files", "1 of 3 file(s) done; 0 converted, 1 failed, 2 pending", "Conversion to MP3 cancelled, 1 failed", "failed cancelled cancelled "},
  };
  // clang-format on
  for (const auto& [names, progress, listed, outcome, expected] : rows) {
    TempDir dir;
    testing::NotificationService desktop;
    const std::string container = dir.file("container"), folder = dir.file("Long");
    FinderConversionRequest request{"mp3", {}};
    for (const auto& name : names)
      request.files.push_back(
          {name == "gone.wav" ? folder + "/" + name : writeLongWav(dir, "Long/" + name, 2), "wav"});
    dir.write("container/requests/long.json", *request.encode());
    std::atomic<int> pid{0};
    auto host = std::async(std::launch::async,
                           [&] { return runHost(container, {desktop.env()}, [&](int p) { pid = p; }); });
    auto converters = [&] {  // the request's ffmpeg processes, by the folder in their command line
      std::vector<int> found;
      for (const auto& process : fs::directory_iterator("/proc")) {
        if (readText(process.path() / "cmdline").find(folder) != std::string::npos)
          found.push_back(std::stoi(process.path().filename()));
      }
      return found;
    };
    // However the test ends, nothing of the request runs on.
    std::shared_ptr<void> reaper(nullptr, [&](void*) {
      if (host.valid() && host.wait_for(std::chrono::seconds(0)) != std::future_status::ready)
        ::kill(pid, SIGKILL);
      for (int process : converters()) ::kill(process, SIGKILL);
    });
    auto shown = [&] {  // the progress notices
      auto notices = desktop.notices();
      std::erase_if(notices, [&](const auto& n) { return n.summary != progress + " \xE2\x86\x92 MP3"; });
      return notices;
    };
    // Two notices at least: the first, and one in its place as ffmpeg gets on.
    const auto started = std::chrono::steady_clock::now();
    ASSERT_TRUE(waitFor([&] { return shown().size() >= 2; }, std::chrono::seconds(60))) << progress;
    EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(1500));
    const auto first = shown()[0], next = shown()[1];
    EXPECT_EQ(std::pair(first.replacesId, next.replacesId), std::pair(0u, first.id));
    EXPECT_EQ(next.actions, (std::vector<std::string>{"cancel", "Cancel"}));
    EXPECT_TRUE(std::regex_match(next.body, std::regex("(long( 2)?\\.wav: \\d+%\n?)+"))) << next.body;
    auto listing = testing::runTool({"requests", "--container", container}, {"NO_COLOR=1"});
    EXPECT_NE(listing.out.find("to mp3: under way, " + listed + "\n"), std::string::npos) << listing.out;

    desktop.click(first.id, "cancel");
    ASSERT_EQ(host.wait_for(std::chrono::seconds(30)), std::future_status::ready) << "Cancel did not stop it";
    EXPECT_EQ(host.get().exitCode, 0);
    EXPECT_EQ(converters(), std::vector<int>());  // ffmpeg is killed, not left to finish
    std::string statuses;
    for (const auto& file : resultOf(container, "long.json").files)
      statuses += std::string(statusName(file.status)) + " ";
    EXPECT_EQ(statuses, expected);
    EXPECT_EQ(filesEndingIn(folder, ""), filesEndingIn(folder, ".wav"));  // the sources alone
    const auto last = desktop.notices().back();
    EXPECT_EQ(std::pair(last.replacesId, last.summary), std::pair(first.id, outcome));
    EXPECT_FALSE(fs::exists(container + "/requests/long.json") ||
                 fs::exists(container + "/requests/processing/long.json"));
  }
}

}  // namespace
}  // namespace palvin

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  if (VIPS_INIT(argv[0]) != 0) return 1;
  return RUN_ALL_TESTS();
}
