// Hostile "capabilities.json" files on the real file system: whatever the
// host app, the disk or another process leaves there, a menu is built without
// blocking, a bad file gives the fallback item and a logged reason, and the
// store keeps what it held.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "catalogue/capability_store.h"
#include "finder/finder_sync.h"
#include "platform/linux_platform.h"
#include "services/log.h"
#include "support/temp_dir.h"

namespace palvin {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::readText;
using testing::writeText;

const std::string kDecodeFailed = "[ERROR] Failed to decode capabilities: ";

// Ends the whole run if a read blocks: a blocked system call can't be
// interrupted, and the suite would otherwise stall until its time limit.
struct Watchdog {
  Watchdog() { ::alarm(60); }
  ~Watchdog() { ::alarm(0); }
};

class HostileInput : public ::testing::Test {
 protected:
  void TearDown() override { FinderLog::flush(); }  // queued lines refer to this platform

  // The log's lines without their timestamps.
  std::vector<std::string> logLines() {
    FinderLog::flush();
    std::vector<std::string> lines;
    std::istringstream log(readText(dir / FinderLog::kFileName));
    for (std::string line; std::getline(log, line);) lines.push_back(line.substr(line.find(' ') + 1));
    return lines;
  }

  testing::TempDir dir;
  const std::string catalogue = dir / CapabilityStore::kFileName;
  const std::string example = readText(PALVIN_SOURCE_DIR "/examples/capabilities.json");
  LinuxPlatform platform{{.container = dir.str(), .bundlePath = dir / "PalvinFinder.appex"}};
  ScopedPlatform installed{platform};
};

// Each odd file takes the place of a good catalogue that the controller holds:
// the user gets the fallback item, the log says exactly why, and the held
// document stays for the next good file.
TEST_F(HostileInput, OddFilesGiveTheFallbackItemAndTheirExactReason) {
  struct Case {
    const char* name;
    std::function<int(const std::string&)> make;  // 0 on success
    std::string reason;
  };
  const Case cases[] = {
      {"a FIFO without a writer", [](auto& p) { return ::mkfifo(p.c_str(), 0600); }, "is a FIFO, not a regular file"},
      {"a link to /dev/zero", [](auto& p) { return ::symlink("/dev/zero", p.c_str()); },
       "is a character device, not a regular file"},
      {"a directory", [](auto& p) { return ::mkdir(p.c_str(), 0700); }, "is a directory, not a regular file"},
      {"a sparse file of 65 MiB",
       [](auto& p) {
         writeText(p, "");
         return ::truncate(p.c_str(), LinuxPlatform::kMaxReadSize + (1 << 20));
       },
       "is 65.0 MiB, larger than the 64 MiB limit"},
      // A dangling link has a date of its own, so it is not a missing file.
      {"a dangling link", [](auto& p) { return ::symlink("gone.json", p.c_str()); }, "No such file or directory"},
  };
  writeText(catalogue, example);
  const timespec old[2] = {{1700000000, 0}, {1700000000, 0}};  // no odd file can share its date
  ASSERT_EQ(::utimensat(AT_FDCWD, catalogue.c_str(), old, 0), 0);
  platform.setSelection({dir / "photo.png"});
  FinderSync finder;
  const auto kind = static_cast<std::uint64_t>(FIMenuKind::contextualMenuForItems);
  ASSERT_TRUE(finder.menuForMenuKind(kind).items.at(0).submenu);
  const auto held = finder.capabilities().cached();
  Watchdog guard;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove_all(catalogue);
    ASSERT_EQ(c.make(catalogue), 0);
    const Menu menu = finder.menuForMenuKind(kind);
    ASSERT_EQ(menu.items.size(), 1u);
    EXPECT_EQ(menu.items[0].action, MenuAction::openHostApp);
    EXPECT_EQ(logLines().back(), kDecodeFailed + catalogue + ": " + c.reason);
    EXPECT_EQ(finder.capabilities().cached(), held);
  }
}

// The host app rewrites the file in place (truncate, small writes, a pause)
// while loads run: a load finds the old, the new, an empty or a torn file, and
// yields one of the two whole catalogues or nothing with a logged reason.
TEST_F(HostileInput, AFileRewrittenDuringLoadsGivesAWholeCatalogueOrALoggedFailure) {
  std::string second = example;
  second.replace(second.find("\"Images\""), 8, "\"Pictures\"");
  const auto a = FinderCapabilities::decode(example), b = FinderCapabilities::decode(second);
  ASSERT_TRUE(a.ok() && b.ok());
  writeText(catalogue, example);
  std::atomic<bool> stop{false};
  std::atomic<int> rewrites{0};
  std::thread writer([&] {
    for (int i = 0; !stop; ++i) {
      const std::string& text = i % 2 == 0 ? second : example;
      const int fd = ::open(catalogue.c_str(), O_WRONLY | O_TRUNC);
      for (std::size_t at = 0; fd >= 0 && at < text.size(); at += 128) {
        (void)!::write(fd, text.data() + at, std::min<std::size_t>(128, text.size() - at));
        std::this_thread::yield();
      }
      ::close(fd);
      ++rewrites;
      std::this_thread::sleep_for(100us);  // whole for a moment, so that loads see whole files too
    }
  });
  // Few enough loads that their lines stay below the trimming threshold.
  CapabilityStore store;
  int without = 0;
  Watchdog guard;
  while (rewrites == 0) std::this_thread::yield();
  for (int loads = 0; loads < 1200 && rewrites < 100; ++loads) {
    const auto loaded = store.load();
    without += !loaded;
    EXPECT_TRUE(!loaded || *loaded == *a || *loaded == *b);
    std::this_thread::sleep_for(20us);
  }
  stop = true;
  writer.join();
  const auto lines = logLines();
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [](auto& l) { return l.starts_with(kDecodeFailed); }), without)
      << "every load without a catalogue logs why";
}

}  // namespace
}  // namespace palvin
