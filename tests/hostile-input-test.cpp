// Hostile "capabilities.json" files on the real file system: whatever the
// host app, the disk or another process leaves there, a menu is built in
// bounded time and memory, and a bad document gives the fallback item and a
// logged reason.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <future>
#include <string>
#include <thread>

#include "catalogue/capability_store.h"
#include "finder/finder_sync.h"
#include "platform/linux_platform.h"
#include "services/log.h"
#include "support/fake_platform.h"
#include "support/temp_dir.h"

namespace palvin {
namespace {

using namespace std::chrono_literals;
using testing::readText;
using testing::TempDir;
using testing::writeText;

// Only a guard against hangs, far above any real duration.
constexpr auto kHangGuard = 20s;
constexpr std::string_view kDecodeFailed = "Failed to decode capabilities: ";

// Runs `work` on a thread of its own; a hang ends the test binary with a
// message instead of stalling the suite.
void withinHangGuard(const std::string& what, std::function<void()> work) {
  std::packaged_task<void()> task(std::move(work));
  auto done = task.get_future();
  std::thread runner(std::move(task));
  if (done.wait_for(kHangGuard) != std::future_status::ready) {
    std::fprintf(stderr, "%s: still running after %llds, giving up\n", what.c_str(),
                 static_cast<long long>(kHangGuard.count()));
    std::_Exit(1);
  }
  runner.join();
  done.get();
}

long maxResidentKiB() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

std::string exampleCatalogue() {
  return readText(PALVIN_SOURCE_DIR "/examples/capabilities.json");
}

bool isFallbackOnly(const Menu& menu) {
  return menu.items.size() == 1 && menu.items[0].action == MenuAction::openHostApp && !menu.items[0].submenu;
}

bool isConvertMenu(const Menu& menu) {
  return menu.items.size() == 1 && menu.items[0].submenu != nullptr;
}

class HostileInput : public ::testing::Test {
 protected:
  void SetUp() override {
    writeText(photo, "not really a picture");
    platform.setSelection({photo});
  }
  void TearDown() override { FinderLog::flush(); }  // queued lines refer to this platform

  Menu menu(FinderSync& finder) {
    Menu built;
    withinHangGuard("menuForMenuKind", [&] {
      built = finder.menuForMenuKind(static_cast<std::uint64_t>(FIMenuKind::contextualMenuForItems));
    });
    return built;
  }

  std::string logText() {
    FinderLog::flush();
    return readText(dir / FinderLog::kFileName);
  }

  TempDir dir;
  const std::string catalogue = dir / CapabilityStore::kFileName;
  const std::string photo = dir / "photo.png";
  LinuxPlatform platform{{.container = dir.str(), .bundlePath = dir / "PalvinFinder.appex"}};
  ScopedPlatform installed{platform};
};

TEST_F(HostileInput, EachBadFileGivesTheFallbackItemAndALoggedReason) {
  const std::string nested =
      R"({"schemaVersion":1,"deep":)" + std::string(100000, '[') + std::string(100000, ']') + "}";
  std::string badUtf8 = exampleCatalogue();
  badUtf8.replace(badUtf8.find("Images"), 6, "Im\xFF\xFEges");

  struct Case {
    const char* name;
    std::function<void(const std::string& path)> make;
    const char* reason;  // part of the logged description
  };
  const Case cases[] = {
      {"100,000 levels of nesting", [&](const std::string& p) { writeText(p, nested); }, "nesting"},
      {"100 MB, sparse",
       [](const std::string& p) {
         int fd = ::open(p.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
         ASSERT_GE(fd, 0);
         ASSERT_EQ(::ftruncate(fd, 100 << 20), 0);
         ::close(fd);
       },
       "limit"},
      {"a FIFO without a writer", [](const std::string& p) { ASSERT_EQ(::mkfifo(p.c_str(), 0600), 0); },
       "FIFO"},
      {"a symlink to /dev/zero",
       [](const std::string& p) { ASSERT_EQ(::symlink("/dev/zero", p.c_str()), 0); }, "character device"},
      {"invalid UTF-8 in a label", [&](const std::string& p) { writeText(p, badUtf8); }, "UTF-8"},
      {"an exponent past the integer range",
       [](const std::string& p) { writeText(p, "[10e9223372036854775807"); }, "out of range"},
      {"a directory", [](const std::string& p) { ASSERT_TRUE(std::filesystem::create_directory(p)); },
       "directory"},
      {"an empty file", [](const std::string& p) { writeText(p, ""); }, "empty"},
  };

  FinderSync finder;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::filesystem::remove_all(catalogue);
    c.make(catalogue);
    const long rssBefore = maxResidentKiB();
    EXPECT_TRUE(isFallbackOnly(menu(finder)));
    EXPECT_LT(maxResidentKiB() - rssBefore, 32 * 1024) << "the file must not be read into memory";
    EXPECT_EQ(finder.capabilities().cached(), nullptr);

    const std::string log = logText();
    const auto line = log.rfind(kDecodeFailed);
    ASSERT_NE(line, std::string::npos);
    EXPECT_NE(log.substr(line, log.find('\n', line) - line).find(c.reason), std::string::npos)
        << log.substr(line, 300);
  }
}

TEST_F(HostileInput, AGoodCatalogueReplacedByADirectoryWithdrawsTheMenu) {
  FinderSync finder;
  writeText(catalogue, exampleCatalogue());
  ASSERT_TRUE(isConvertMenu(menu(finder)));

  std::filesystem::remove(catalogue);
  std::filesystem::create_directory(catalogue);
  EXPECT_TRUE(isFallbackOnly(menu(finder)));
  EXPECT_NE(logText().find(std::string(kDecodeFailed) + catalogue + ": is a directory"), std::string::npos);
  EXPECT_NE(finder.capabilities().cached(), nullptr) << "a failed read keeps what the store holds";
}

// The host app rewrites the file in place (truncate, writes, a pause) while
// menus are built: a load sees the old, the new, an empty or a torn file, but
// yields either one of the two whole catalogues or nothing with a logged
// failure.
TEST_F(HostileInput, AFileRewrittenDuringLoadsGivesAWholeCatalogueOrALoggedFailure) {
  const std::string first = exampleCatalogue();
  std::string second = first;
  second.replace(second.find("\"Images\""), 8, "\"Pictures\"");
  auto a = FinderCapabilities::decode(first);
  auto b = FinderCapabilities::decode(second);
  ASSERT_TRUE(a.ok() && b.ok());
  writeText(catalogue, first);

  std::atomic<bool> stop{false};
  std::atomic<int> rewrites{0};
  std::thread writer([&] {
    for (int i = 0; !stop; ++i) {
      const std::string& text = i % 2 == 0 ? second : first;
      int fd = ::open(catalogue.c_str(), O_WRONLY | O_TRUNC);
      if (fd < 0) continue;
      // Small pieces, so that loads also find the file empty or torn.
      bool whole = true;
      for (std::size_t at = 0; whole && at < text.size(); at += 128) {
        const std::size_t piece = std::min<std::size_t>(128, text.size() - at);
        whole = ::write(fd, text.data() + at, piece) == static_cast<ssize_t>(piece);
        std::this_thread::yield();
      }
      ::close(fd);
      if (whole) ++rewrites;
      // A pause with the file whole, so that loads see whole files too.
      std::this_thread::sleep_for(100us);
    }
  });

  // Loads spread over a hundred rewrites, but few enough that their log lines
  // stay below the trimming threshold, so every failure line can be counted.
  constexpr int kMaxLoads = 1200;
  CapabilityStore store;
  int loads = 0;
  int without = 0;
  withinHangGuard("loads while rewriting", [&] {
    while (rewrites == 0) std::this_thread::yield();
    for (; loads < kMaxLoads && rewrites < 100; ++loads) {
      auto loaded = store.load();
      std::this_thread::sleep_for(20us);
      if (!loaded) {
        ++without;
        continue;
      }
      EXPECT_TRUE(*loaded == *a || *loaded == *b);
    }
  });
  stop = true;
  writer.join();

  std::string log = logText();
  int failures = 0;
  for (auto at = log.find(kDecodeFailed); at != std::string::npos; at = log.find(kDecodeFailed, at + 1))
    ++failures;
  EXPECT_EQ(failures, without) << "every load without a catalogue logs why";
  RecordProperty("loads", loads);
  RecordProperty("loadsWithoutCatalogue", without);
  RecordProperty("rewrites", rewrites.load());
}

}  // namespace
}  // namespace palvin
