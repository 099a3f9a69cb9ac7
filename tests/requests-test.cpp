// The request hand-off: the request document, the extension's sender (on the
// fake platform) and the host app's queue (on a real container).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <palvin/identifiers.h>
#include <sys/file.h>
#include <unistd.h>

#include <mutex>
#include <regex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/linux_platform.h"
#include "requests/request.h"
#include "requests/request_queue.h"
#include "requests/request_sender.h"
#include "shared/paths.h"
#include "support/log_lines.h"
#include "support/temp_dir.h"

namespace palvin {
namespace {

// The bytes the host app reads: field order, no white space, every '/' escaped, non-ASCII raw; files
// in the order given.
TEST(RequestEncode, ExactCompactBytesThatDecodeBack) {
  const std::vector<std::pair<FinderConversionRequest, std::string>> cases = {
      {{"image/webp", {{"/v/Café/Ελληνικά 写真 🎨.heic", "a/b"}, {"/v/a.avi", "avi"}}},
       R"({"targetFormatId":"image\/webp","files":[{"path":"\/v\/Café\/Ελληνικά 写真 🎨.heic",)"
       R"("sourceFormatId":"a\/b"},{"path":"\/v\/a.avi","sourceFormatId":"avi"}]})"},
      {{"", {}}, R"({"targetFormatId":"","files":[]})"},
  };
  for (const auto& [request, bytes] : cases) {
    auto encoded = request.encode();
    ASSERT_TRUE(encoded) << encoded.error();
    EXPECT_EQ(*encoded, bytes);
    auto decoded = FinderConversionRequest::decode(bytes);
    ASSERT_TRUE(decoded) << decoded.error();
    EXPECT_EQ(*decoded, request);
  }
}

// A corrupt file is never written: the failure names the field and shows its bytes, invalid ones and
// control characters as \xNN.
TEST(RequestEncode, InvalidUtf8FailsNamingTheField) {
  const std::vector<std::pair<FinderConversionRequest, std::string>> cases = {
      {{"png", {{"/ok", "a"}, {"/ok", "b"}, {"/b\xff\x01/x\xc3\xa9\"", "c"}}},
       R"(files[2].path is not valid UTF-8: "/b\xFF\x01/xé\"")"},
      {{"p\xed\xa0\x80", {}}, R"(targetFormatId is not valid UTF-8: "p\xED\xA0\x80")"},
      {{"png", {{"/ok", "cut\xe2\x82"}}}, R"(files[0].sourceFormatId is not valid UTF-8: "cut\xE2\x82")"},
  };
  for (const auto& [request, error] : cases) {
    auto encoded = request.encode();
    EXPECT_EQ(encoded ? "(encoded)" : encoded.error(), error);
  }
}

// Keys in any order, unknown keys and white space ignored, the last of repeated keys wins; the keys
// are required with their JSON types (below), and one bad file rejects the whole document.
TEST(RequestDecode, AnyKeyOrderAndTheLastOfRepeatedKeys) {
  auto decoded = FinderConversionRequest::decode(R"( {"files": [{"x": {"y": [1]}, "sourceFormatId": "png",
      "path": "\/a"}], "v": 3, "targetFormatId": "png", "targetFormatId": "tiff"} )");
  ASSERT_TRUE(decoded) << decoded.error();
  EXPECT_EQ(*decoded, (FinderConversionRequest{"tiff", {{"/a", "png"}}}));
}

TEST(RequestFile, NamesAreUniqueVersion4Uuids) {
  const std::regex uuid("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  std::set<std::string> seen;
  for (int i = 0; i < 5000; ++i) {
    const std::string name = i % 2 ? makeUuidV4() + ".json" : newRequestFileName();
    ASSERT_TRUE(std::regex_match(name.substr(0, 36), uuid) && name.substr(36) == ".json") << name;
    seen.insert(name);
  }
  EXPECT_EQ(seen.size(), 5000u);
}

using testing::FakePlatform;
using Lines = std::vector<std::string>;
using Logged = std::vector<FakePlatform::UnifiedEntry>;

const std::string kOpenHostApp = "open /Applications/Palvin.app";
const FinderConversionRequest kThreeFiles{
    "png", {{"/a/one.heic", "heic"}, {"/a/tw\xC3\xB6.jpg", "jpeg"}, {"/Volumes/E/\"three\".pdf", "pdf"}}};

// The outward effects, log entries among them, but the log file's writes; then
// each launch's options as "launch <activates><addsToRecentItems>".
Lines effects(FakePlatform& fake) {
  FinderLog::flush();  // the log's own writes are all in before the events are read
  Lines out = fake.events();
  std::erase_if(out, [](const std::string& event) { return event.ends_with(FinderLog::kFileName); });
  for (const auto& [path, options] : fake.launches())
    out.push_back("launch " + std::to_string(options.activates) + std::to_string(options.addsToRecentItems));
  return out;
}

// The request stands before anyone is told, and the host app is opened last,
// in the background; a successful launch is not logged.
TEST(RequestSender, WritesNotifiesThenOpensTheHostApp) {
  FakePlatform fake;
  ScopedPlatform scope(fake);
  FinderRequestSender().send(kThreeFiles);

  auto written = fake.filesUnder("/container/requests");  // the directory did not exist
  ASSERT_EQ(written.size(), 1u);
  const std::string name(paths::lastComponent(written[0]));
  EXPECT_EQ(FinderConversionRequest::decode(fake.file(written[0])->content).value(), kThreeFiles);
  EXPECT_EQ(effects(fake),
            (Lines{"write " + written[0], "log Wrote request " + name + ": 3 file(s) \xE2\x86\x92 png",
                   "notify " + std::string(ids::kRequestNotificationName), kOpenHostApp, "launch 00"}));
  EXPECT_EQ(testing::logLines(fake).at(0), "[INFO] Wrote request " + name + ": 3 file(s) \xE2\x86\x92 png");
}

TEST(RequestSender, EachFailureStopsBeforeTheNotification) {
  const FinderConversionRequest unencodable{"png", {{"/a/b\xFF.heic", "heic"}}};
  const std::string failed = "Failed to write request: ";
  const struct {
    std::function<void(FakePlatform&)> arrange;
    std::string message;
    FinderConversionRequest request = kThreeFiles;
  } cases[] = {
      {[](FakePlatform& f) { f.container.reset(); }, "Cannot send request: App Group container unavailable"},
      {[](FakePlatform& f) { f.failCreateDirectories = "Not permitted"; }, failed + "Not permitted"},
      {[](FakePlatform&) {}, failed + unencodable.encode().error(), unencodable},
      {[](FakePlatform& f) { f.failWrites = "The disk is full."; }, failed + "The disk is full."},
  };
  for (const auto& c : cases) {
    FakePlatform fake;
    ScopedPlatform scope(fake);
    c.arrange(fake);
    FinderRequestSender().send(c.request);
    EXPECT_EQ(effects(fake), Lines{"log " + c.message});
    EXPECT_EQ(fake.unifiedEntries(), (Logged{{UnifiedLogType::error, c.message}}));
  }
}

// A launch failure is logged, a success is not (see above).
TEST(RequestSender, LaunchOpensTheNearestAppWithinFiveCandidates) {
  const std::string failure = "The application \xE2\x80\x9CPalvin\xE2\x80\x9D can't be opened.";
  const std::pair<std::string, std::optional<std::string>> cases[] = {
      {"/Applications/Palvin.app/Contents/PlugIns/PalvinFinder.appex", "/Applications/Palvin.app"},
      {"/Applications/Palvin.app", "/Applications/Palvin.app"},  // the bundle itself
      {"/x/Host.app/b/c/d/E.appex", "/x/Host.app"},              // the fifth candidate
      {"/x/Host.app/a/b/c/d/E.appex", std::nullopt},             // the sixth is not examined
      {"/Outer.app/Inner.app/Contents/PlugIns/E.appex", "/Outer.app/Inner.app"},
      {"/Applications/Palvin.App/Contents/PlugIns/E.appex", std::nullopt},
      {"/PlugIns/E.appex", std::nullopt},  // reaches the root before five
  };
  for (const auto& [bundle, host] : cases) {
    FakePlatform fake;
    ScopedPlatform scope(fake);
    fake.bundle = bundle;
    fake.failLaunch = failure;
    FinderRequestSender().launchHostApp(true);
    const std::string message =
        host ? "Failed to launch host app: " + failure : "Could not resolve host app URL from " + bundle;
    EXPECT_EQ(effects(fake),
              (host ? Lines{"open " + *host, "log " + message, "launch 10"} : Lines{"log " + message}))
        << bundle;
    EXPECT_EQ(fake.unifiedEntries(), (Logged{{UnifiedLogType::error, message}})) << bundle;
  }
}

// FinderRequestQueue on a real container: files converted in parallel, a
// claim held by a live instance left alone and taken over once released, a
// stop that returns a request which the next queue then finishes. Cancel, and
// what each file's result records, are seen end to end in host-app-test.
using testing::readText;
using Status = FinderFileResult::Status;

struct QueueRun {
  std::mutex mutex;
  std::vector<std::string> converted;  // paths, in the order the converter saw them
  std::vector<std::string> logged;
  std::function<void(FinderRequestQueue&, std::size_t)> onFile = [](FinderRequestQueue&, std::size_t) {};

  std::size_t process(const std::string& container, unsigned parallelism) {
    FinderRequestQueue* self = nullptr;
    FinderRequestQueue queue(container, {.convert =
                                             [&](const FinderFileTask& task, const std::atomic<bool>&) {
                                               std::size_t count;
                                               {
                                                 std::lock_guard lock(mutex);
                                                 converted.push_back(task.file.path);
                                                 count = converted.size();
                                               }
                                               onFile(*self, count);
                                               return FinderFileResult{{}, Status::converted, "/out", {}};
                                             },
                                         .log =
                                             [&](FinderLog::Level, const std::string& message) {
                                               std::lock_guard lock(mutex);
                                               logged.push_back(message);
                                             },
                                         .parallelism = parallelism});
    self = &queue;
    EXPECT_TRUE(queue.prepare().ok());
    return queue.processPending();
  }
};

FinderConversionRequest request(const std::string& prefix, int files) {
  FinderConversionRequest out{"webp", {}};
  for (int i = 0; i < files; ++i) out.files.push_back({prefix + std::to_string(i), "png"});
  return out;
}

TEST(RequestQueue, LeavesHeldClaimsAndResumesStoppedRequests) {
  testing::TempDir dir;
  LinuxPlatform platform({.container = dir.path()});
  ScopedPlatform installed(platform);
  dir.write("requests/a.json", *request("/a", 40).encode());
  // A claim whose owner is alive (it holds the lock) is not touched.
  const std::string held = dir.write("requests/processing/c.json", *request("/c", 10).encode());
  int holder = ::open(held.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(::flock(holder, LOCK_EX), 0);
  auto result = [&](const std::string& name) {
    return FinderConversionResult::decode(readText(dir.file("results/" + name)));
  };

  // A stop after the 15th file started puts a back into requests/.
  QueueRun first;
  first.onFile = [](FinderRequestQueue& queue, std::size_t count) {
    if (count == 15) queue.requestStop();
  };
  first.process(dir.path(), 4);
  EXPECT_TRUE(std::filesystem::exists(dir.file("requests/a.json")));
  EXPECT_TRUE(std::filesystem::exists(held));
  const std::size_t done = 40 - result("a.json")->count(Status::pending);
  EXPECT_EQ(done, first.converted.size());  // every started file finished and was recorded

  // c's owner dies (the lock goes): the next queue takes c over and finishes a.
  ::close(holder);
  QueueRun second;
  EXPECT_EQ(second.process(dir.path(), 3), 2u);
  EXPECT_EQ(second.logged.front(),
            "Recovered request c.json left in processing/ by an instance that stopped");
  EXPECT_EQ(second.converted.size(), 10 + 40 - done);  // only the files left
  EXPECT_EQ(result("a.json")->count(Status::converted) + result("c.json")->count(Status::converted), 50u);
  EXPECT_TRUE(std::filesystem::is_empty(dir.file("requests/processing")));
}

// What this process has written so far, by every thread's write calls.
std::uint64_t bytesWritten() {
  const std::string io = readText("/proc/self/io");
  return std::stoull(io.substr(io.find("wchar: ") + 7));
}

// Result writing grows linearly with a request (per file, 8,000 files cost
// what 1,000 do, and a few times the final document in all), and a one-file
// request queued behind a 100,000-file one is done while that one still runs,
// its reason cut to a kilobyte of valid UTF-8.
TEST(RequestQueue, BigRequestsWriteLinearlyAndStarveNoSmallOne) {
  testing::TempDir dir;
  LinuxPlatform platform({.container = dir.path()});
  ScopedPlatform installed(platform);
  std::atomic<std::size_t> bigDone{0};
  std::size_t bigDoneWhenSmall = 0;
  FinderRequestQueue queue(
      dir.path(), {.convert =
                       [&](const FinderFileTask& task, const std::atomic<bool>&) {
                         if (task.requestName == "small.json") {
                           bigDoneWhenSmall = bigDone.load();
                           // A reason too long, and not UTF-8.
                           return FinderFileResult{{}, Status::failed, {}, std::string(5000, '\xFF')};
                         } else {
                           ++bigDone;
                         }
                         return FinderFileResult{{}, Status::failed, {}, "gone"};
                       },
                   .parallelism = 2,
                   .slice = std::chrono::milliseconds(20)});
  ASSERT_TRUE(queue.prepare().ok());
  double perFile[2];
  for (int i : {0, 1}) {
    const int files = i == 0 ? 1000 : 8000;
    dir.write("requests/r" + std::to_string(files) + ".json", *request("/missing/folder/", files).encode());
    const auto before = bytesWritten();
    EXPECT_EQ(queue.processPending(), 1u);
    const auto written = bytesWritten() - before;
    EXPECT_LT(written,
              48 * std::filesystem::file_size(dir.file("results/r" + std::to_string(files) + ".json")));
    perFile[i] = static_cast<double>(written) / files;
  }
  EXPECT_LT(perFile[1], 1.5 * perFile[0]) << perFile[0] << " bytes a file for 1,000 files";

  dir.write("requests/big.json", *request("/missing/folder/", 100000).encode());
  bigDone = 0;
  dir.write("requests/small.json", *request("/s", 1).encode());
  EXPECT_EQ(queue.processPending(), 2u);
  EXPECT_EQ(FinderConversionResult::decode(readText(dir.file("results/big.json")))->count(Status::failed),
            100000u);
  EXPECT_EQ(FinderConversionResult::decode(readText(dir.file("results/small.json")))->files.at(0).error,
            std::string(1024, '?') + "\xE2\x80\xA6");
  EXPECT_GT(bigDoneWhenSmall, 0u);
  EXPECT_LT(bigDoneWhenSmall, 100000u);
}

// results/ keeps the last 30 days, or the last 1,000 documents, whichever is more.
TEST(RequestQueue, KeepsAMonthOfResultsOrTheLastThousand) {
  testing::TempDir dir;
  LinuxPlatform platform({.container = dir.path()});
  ScopedPlatform installed(platform);
  auto documents = [&](const std::string& prefix, int count, int daysOld) {
    for (int i = 0; i < count; ++i) {
      std::filesystem::last_write_time(
          dir.write("results/" + prefix + std::to_string(i) + ".json", "{}"),
          std::filesystem::file_time_type::clock::now() - std::chrono::hours(24 * daysOld));
    }
    EXPECT_TRUE(FinderRequestQueue(dir.path(), {}).prepare().ok());
    return std::distance(std::filesystem::directory_iterator(dir.file("results")), {});
  };
  EXPECT_EQ(documents("old", 5, 40), 5);        // fewer than 1,000: kept however old
  EXPECT_EQ(documents("new", 1001, 29), 1001);  // a month's, more than 1,000: the old ones go
}

// Both decoders are strict alike; a result's files follow the status rules too.
TEST(Decoders, RequireEachKeyWithItsTypeAndResultsTheStatusRules) {
  const FinderConversionResult mixed{"webp",
                                     {{"/a/x.png", Status::converted, "/a/x.webp", ""},
                                      {"/a/\xC3\xA9.png", Status::failed, "", "no \"luck\""},
                                      {"/a/z.png", Status::pending, "", ""},
                                      {"/a/w.png", Status::cancelled, "", ""}}};
  EXPECT_EQ(*FinderConversionResult::decode(*mixed.encode()), mixed);
  // clang-format off
  for (const auto& [isResult, document, error] : std::vector<std::tuple<bool, std::string, std::string>>{
           {false, R"({"targetFormatId":"p","files":[{"path":"/a","sourceFormatId":"j"},{"path":"/b"}]})", "files[1].sourceFormatId: missing"},
           {false, R"({"targetFormatId":"p"})", "files: missing"},
           {false, R"({"targetFormatId":null,"files":[]})", "targetFormatId: expected string, found null"},
           {false, R"({"targetFormatId":"p","files":{}})", "files: expected array, found object"},
           {true, R"({"files":[],"x":1,"targetFormatId":"mp3"})", ""},
           {true, R"({"targetFormatId":"a","files":[{"status":"pending"}]})", "files[0].path: missing"},
           {true, R"({"targetFormatId":"a","files":[{"path":"\/p","status":"done"}]})", "files[0].status: expected \"pending\", \"converted\", \"failed\" or \"cancelled\""},
           {true, R"({"targetFormatId":"a","files":[{"path":"\/p","status":"converted"}]})", "files[0].outputPath: missing"},
           {true, R"({"targetFormatId":"a","files":[{"path":"\/p","status":"converted","outputPath":""}]})", "files[0].outputPath: empty"},
           {true, R"({"targetFormatId":"a","files":[{"path":"\/p","status":"failed","error":null}]})", "files[0].error: expected string, found null"},
       }) {
    // clang-format on
    auto request = FinderConversionRequest::decode(document);
    auto result = FinderConversionResult::decode(document);
    EXPECT_EQ(isResult ? (result.ok() ? "" : result.error()) : (request.ok() ? "" : request.error()), error)
        << document;
  }
}

}  // namespace
}  // namespace palvin
