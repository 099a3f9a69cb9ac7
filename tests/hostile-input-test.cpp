// Hostile "capabilities.json" files on the real file system: whatever the
// host app, the disk or another process leaves there, a menu is built without
// blocking, a bad file gives the fallback item and a logged reason, and the
// store keeps what it held.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>

#include "catalogue/capability_store.h"
#include "finder/finder_sync.h"
#include "platform/linux_platform.h"
#include "services/log.h"
#include "support/temp_dir.h"

namespace palvin {
namespace {

namespace fs = std::filesystem;
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

  // The log's last line without its timestamp.
  std::string lastLogLine() {
    FinderLog::flush();
    const std::string log = readText(dir / FinderLog::kFileName);
    const std::string last = log.substr(log.rfind('\n', log.size() - 2) + 1);
    return last.substr(last.find(' ') + 1);
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
      {"a FIFO without a writer", [](auto& p) { return ::mkfifo(p.c_str(), 0600); },
       "is a FIFO, not a regular file"},
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
      {"a dangling link", [](auto& p) { return ::symlink("gone.json", p.c_str()); },
       "No such file or directory"},
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
    EXPECT_EQ(lastLogLine(), kDecodeFailed + catalogue + ": " + c.reason + "\n");
    EXPECT_EQ(finder.capabilities().cached(), held);
  }
}

}  // namespace
}  // namespace palvin
