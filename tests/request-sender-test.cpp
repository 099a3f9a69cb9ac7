#include <gtest/gtest.h>
#include <palvin/identifiers.h>

#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "requests/request_sender.h"
#include "shared/log.h"
#include "shared/paths.h"
#include "support/fake_platform.h"
#include "support/log_lines.h"

namespace palvin {
namespace {

using testing::FakePlatform;
using testing::logLines;
using testing::ScopedPlatform;

const std::string kRequests = "/container/requests";
const std::string kHostApp = "/Applications/Palvin.app";
const std::string kArrow = "\xE2\x86\x92";

// Fails only the request file's write, so the log file can still record the
// failure.
class SenderPlatform : public FakePlatform {
 public:
  std::optional<std::string> failRequestWrite;

  Status writeFileAtomically(const std::string& path, std::string_view bytes) override {
    if (failRequestWrite && paths::parent(path) == kRequests) return Error{*failRequestWrite};
    return FakePlatform::writeFileAtomically(path, bytes);
  }
};

FinderConversionRequest threeFiles() {
  return {"png",
          {{"/Users/a/Pictures/one.heic", "heic"},
           {"/Users/a/Pictures/tw\xC3\xB6.jpg", "jpeg"},
           {"/Volumes/Ext/\"three\".pdf", "pdf"}}};
}

class RequestSenderTest : public ::testing::Test {
 protected:
  // The log queue holds on to the platform until its lines are written.
  ~RequestSenderTest() override { FinderLog::flush(); }

  // The outward effects of the sender, without the log file's own writes.
  std::vector<std::string> events() {
    FinderLog::flush();
    std::vector<std::string> out;
    for (auto& event : fake.events()) {
      if (!event.ends_with(FinderLog::kFileName)) out.push_back(event);
    }
    return out;
  }

  SenderPlatform fake;
  ScopedPlatform scope{fake};
  FinderRequestSender sender;
};

TEST_F(RequestSenderTest, WritesNotifiesThenOpensInTheBackground) {
  const FinderConversionRequest request = threeFiles();
  sender.send(request);

  auto written = fake.filesUnder(kRequests);
  ASSERT_EQ(written.size(), 1u);
  const std::string name(paths::lastComponent(written[0]));
  EXPECT_TRUE(std::regex_match(
      name, std::regex("[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}\\.json")))
      << name;
  auto decoded = FinderConversionRequest::decode(fake.file(written[0])->content);
  ASSERT_TRUE(decoded.ok()) << decoded.error();
  EXPECT_EQ(*decoded, request);

  EXPECT_EQ(logLines(fake),
            std::vector<std::string>{"[INFO] Wrote request " + name + ": 3 file(s) " + kArrow + " png"});
  EXPECT_EQ(events(), (std::vector<std::string>{"write " + written[0],
                                                "notify " + std::string(ids::kRequestNotificationName),
                                                "open " + kHostApp}));
  auto launches = fake.launches();
  ASSERT_EQ(launches.size(), 1u);
  EXPECT_FALSE(launches[0].configuration.activates);
  EXPECT_FALSE(launches[0].configuration.addsToRecentItems);
}

TEST_F(RequestSenderTest, CreatesTheRequestDirectoryWhenMissing) {
  ASSERT_EQ(fake.directories.count(kRequests), 0u);
  sender.send({"pdf", {{"/a.png", "png"}}});
  EXPECT_EQ(fake.directories.count(kRequests), 1u);
  EXPECT_EQ(fake.filesUnder(kRequests).size(), 1u);
  auto lines = logLines(fake);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_TRUE(lines[0].ends_with(".json: 1 file(s) " + kArrow + " pdf")) << lines[0];
}

TEST_F(RequestSenderTest, TwoSendsGiveTwoFiles) {
  sender.send({"png", {{"/a.heic", "heic"}}});
  sender.send({"png", {{"/a.heic", "heic"}}});
  auto written = fake.filesUnder(kRequests);
  ASSERT_EQ(written.size(), 2u);
  EXPECT_NE(written[0], written[1]);
  auto lines = logLines(fake);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_NE(lines[0], lines[1]);
  EXPECT_EQ(fake.notifications().size(), 2u);
  EXPECT_EQ(fake.launches().size(), 2u);
}

TEST_F(RequestSenderTest, NoContainerSendsNothing) {
  fake.container.reset();
  sender.send(threeFiles());
  EXPECT_EQ(fake.unifiedEntries(),
            (std::vector<FakePlatform::UnifiedEntry>{
                {UnifiedLogType::error, "Cannot send request: App Group container unavailable"}}));
  EXPECT_TRUE(events().empty());
  EXPECT_TRUE(fake.launches().empty());
}

TEST_F(RequestSenderTest, EachWriteFailureStopsBeforeTheNotification) {
  struct Case {
    const char* name;
    std::function<void(SenderPlatform&)> arrange;
    FinderConversionRequest request;
    std::string line;  // a line ending in ": " is checked as a prefix
  };
  const std::string prefix = "[ERROR] Failed to write request: ";
  const Case cases[] = {
      {"directory", [](SenderPlatform& f) { f.failCreateDirectories = "Operation not permitted"; },
       threeFiles(), prefix + "Operation not permitted"},
      {"encoding", [](SenderPlatform&) {}, {"png", {{"/a/b\xFF.heic", "heic"}}}, prefix},
      {"write", [](SenderPlatform& f) { f.failRequestWrite = "The disk is full."; }, threeFiles(),
       prefix + "The disk is full."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    SenderPlatform platform;
    ScopedPlatform installed(platform);
    c.arrange(platform);
    sender.send(c.request);
    auto lines = logLines(platform);
    ASSERT_EQ(lines.size(), 1u);
    if (c.line == prefix) {
      EXPECT_TRUE(lines[0].starts_with(prefix) && lines[0].size() > prefix.size()) << lines[0];
    } else {
      EXPECT_EQ(lines[0], c.line);
    }
    EXPECT_TRUE(platform.filesUnder(kRequests).empty());
    EXPECT_TRUE(platform.notifications().empty());
    EXPECT_TRUE(platform.launches().empty());
  }
}

TEST_F(RequestSenderTest, FindsTheNearestAppWithinFiveCandidates) {
  struct Case {
    std::string bundle;
    std::optional<std::string> host;
  };
  const Case cases[] = {
      {"/Applications/Palvin.app/Contents/PlugIns/PalvinFinder.appex", kHostApp},  // the fourth candidate
      {"/Applications/Palvin.app/Contents/PlugIns/PalvinFinder.appex/", kHostApp},
      {"/Applications/Palvin.app", kHostApp},         // the bundle itself
      {"/x/Host.app/b/c/d/E.appex", "/x/Host.app"},   // the fifth
      {"/x/Host.app/a/b/c/d/E.appex", std::nullopt},  // the sixth is not examined
      {"/Outer.app/Inner.app/Contents/PlugIns/E.appex", "/Outer.app/Inner.app"},
      {"/Applications/Palvin.App/Contents/PlugIns/E.appex", std::nullopt},
      {"/Applications/Palvin.APP/Contents/PlugIns/E.appex", std::nullopt},
      {"/Applications/app/Contents/PlugIns/E.appex", std::nullopt},
      {"/Applications/Palvin.app.old/Contents/PlugIns/E.appex", std::nullopt},
      {"/PlugIns/E.appex", std::nullopt},  // reaches the root before five
      {"/", std::nullopt},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.bundle);
    fake.bundle = c.bundle;
    EXPECT_EQ(sender.hostAppURL(), c.host);
  }
}

TEST_F(RequestSenderTest, UnresolvedHostAppIsLoggedAfterTheRequestStands) {
  fake.bundle = "/opt/palvin/lib/plugins/extensions/PalvinFinder.appex";
  sender.send({"png", {{"/a.heic", "heic"}}});
  auto written = fake.filesUnder(kRequests);
  ASSERT_EQ(written.size(), 1u);
  auto lines = logLines(fake);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_TRUE(lines[0].starts_with("[INFO] Wrote request "));
  EXPECT_EQ(lines[1], "[ERROR] Could not resolve host app URL from " + fake.bundle);
  EXPECT_EQ(events(), (std::vector<std::string>{"write " + written[0],
                                                "notify " + std::string(ids::kRequestNotificationName)}));
  EXPECT_TRUE(fake.launches().empty());
}

TEST_F(RequestSenderTest, LaunchFailureIsLoggedAndSuccessIsNot) {
  fake.failLaunch = "The application \xE2\x80\x9CPalvin\xE2\x80\x9D can't be opened.";
  sender.launchHostApp(true);
  fake.failLaunch.reset();
  sender.launchHostApp(true);
  EXPECT_EQ(logLines(fake), std::vector<std::string>{"[ERROR] Failed to launch host app: The application "
                                                     "\xE2\x80\x9CPalvin\xE2\x80\x9D can't be opened."});
  EXPECT_EQ(fake.launches().size(), 2u);
}

TEST_F(RequestSenderTest, LaunchOnItsOwnActivatesAndWritesNothing) {
  sender.launchHostApp(true);
  auto launches = fake.launches();
  ASSERT_EQ(launches.size(), 1u);
  EXPECT_EQ(launches[0].bundlePath, kHostApp);
  EXPECT_TRUE(launches[0].configuration.activates);
  EXPECT_FALSE(launches[0].configuration.addsToRecentItems);
  EXPECT_EQ(events(), std::vector<std::string>{"open " + kHostApp});
  EXPECT_TRUE(logLines(fake).empty());
}

}  // namespace
}  // namespace palvin
