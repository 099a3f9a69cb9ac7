#include <gtest/gtest.h>
#include <palvin/identifiers.h>

#include "requests/request_sender.h"
#include "shared/paths.h"
#include "support/log_lines.h"

namespace palvin {
namespace {

using testing::FakePlatform;
using Lines = std::vector<std::string>;
using Logged = std::vector<FakePlatform::UnifiedEntry>;

const std::string kOpenHostApp = "open /Applications/Palvin.app";
const FinderConversionRequest kThreeFiles{
    "png", {{"/a/one.heic", "heic"}, {"/a/tw\xC3\xB6.jpg", "jpeg"}, {"/Volumes/E/\"three\".pdf", "pdf"}}};

// The outward effects, log entries among them, but the log file's writes; then
// each launch's options as "launch <activates><addsToRecentItems>".
Lines effects(FakePlatform& fake) {
  FinderLog::flush();  // the log queue holds on to the platform until its lines are written
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

}  // namespace
}  // namespace palvin
