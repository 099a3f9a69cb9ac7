// The extension as a guest in a host process. The test runs in a mount
// namespace of its own, where a stand-in system logger listens on /dev/log and
// a stand-in journal on its socket, each a datagram socket of this test, so
// that what the host and the extension send can be read back. Nothing outside
// the namespace changes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <palvin/identifiers.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux_platform.h"
#include "services/log.h"
#include "support/temp_dir.h"

namespace palvin {
namespace {

using Level = FinderLog::Level;

// A datagram socket bound at `path`; what it received so far, one datagram a string.
class Listener {
 public:
  explicit Listener(const char* path) : path_(path) {
    ::unlink(path);
    fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << path;
  }
  ~Listener() {
    ::close(fd_);
    ::unlink(path_);
  }
  std::vector<std::string> received() {
    std::vector<std::string> out;
    std::string buffer(1 << 18, '\0');
    for (ssize_t got; (got = ::recv(fd_, buffer.data(), buffer.size(), MSG_DONTWAIT)) >= 0;)
      out.emplace_back(buffer.data(), static_cast<std::size_t>(got));
    return out;
  }

 private:
  const char* path_;
  int fd_;
};

class Guest : public ::testing::Test {
 protected:
  Listener syslogd{"/dev/log"};
  Listener journald{"/run/systemd/journal/socket"};
};

// The host's own syslog lines keep the identity and facility it chose while
// the extension logs, and after the extension is gone.
TEST_F(Guest, TheHostsSyslogIdentityAndFacilitySurviveTheExtension) {
  ::openlog("host-tool", LOG_PID, LOG_LOCAL3);
  ::syslog(LOG_NOTICE, "before");
  {
    LinuxPlatform platform;
    ScopedPlatform installed(platform);
    FinderLog::log(Level::error, "from the extension");
    ::syslog(LOG_NOTICE, "during");
    FinderLog::shutdown();
  }
  ::syslog(LOG_NOTICE, "after");
  ::closelog();
  // "<priority>Mmm dd hh:mm:ss identity[pid]: message", without the time.
  std::vector<std::string> lines = syslogd.received();
  for (auto& line : lines) line.erase(line.find('>') + 1, 16);
  const std::string host = "<157>host-tool[" + std::to_string(::getpid()) + "]: ";  // LOG_LOCAL3 | LOG_NOTICE
  EXPECT_EQ(lines, (std::vector<std::string>{host + "before", host + "during", host + "after"}));
  EXPECT_EQ(journald.received().size(), 1u);
}

// One datagram per line, in the journal's native protocol: the subsystem and
// category as fields, a message with line feeds in the protocol's sized form.
// Without a journal, nothing is sent.
TEST_F(Guest, EntriesReachTheJournalWithTheSubsystemAndCategory) {
  const std::string fields = "SYSLOG_IDENTIFIER=" + std::string(ids::kLogSubsystem) +
                             "\nPALVIN_SUBSYSTEM=" + std::string(ids::kLogSubsystem) +
                             "\nPALVIN_CATEGORY=PalvinFinder\n";
  const std::vector<std::string> expected = {
      "PRIORITY=7\n" + fields + "MESSAGE=d\n", "PRIORITY=6\n" + fields + "MESSAGE=\n",
      "PRIORITY=3\n" + fields + "MESSAGE=w = 1\n",
      "PRIORITY=3\n" + fields + "MESSAGE\n" + std::string("\x09\0\0\0\0\0\0\0", 8) + "two\nlines\n"};
  {
    LinuxPlatform platform;
    ScopedPlatform installed(platform);
    FinderLog::log(Level::debug, "d");
    FinderLog::log(Level::info, "");
    FinderLog::log(Level::warn, "w = 1");
    FinderLog::log(Level::error, "two\nlines");
    FinderLog::shutdown();
  }
  EXPECT_EQ(journald.received(), expected);
  EXPECT_TRUE(syslogd.received().empty());

  ::unlink("/run/systemd/journal/socket");
  LinuxPlatform without;
  EXPECT_FALSE(without.unifiedLogEnabled(UnifiedLogType::error));
}

// A journal that reads nothing fills up: the lines beyond its room are
// dropped, and no call waits for it.
TEST_F(Guest, AFullJournalDropsEntriesAndNeverBlocks) {
  testing::Watchdog guard;
  constexpr int kLines = 20000;
  {
    LinuxPlatform platform;
    ScopedPlatform installed(platform);
    for (int i = 0; i < kLines; ++i) FinderLog::log(Level::info, "line " + std::to_string(i));
    FinderLog::shutdown();
  }
  const auto entries = journald.received();
  ASSERT_FALSE(entries.empty());
  EXPECT_LT(entries.size(), static_cast<std::size_t>(kLines));
  EXPECT_TRUE(entries.front().ends_with("MESSAGE=line 0\n"));
}

bool writeFile(const char* path, const std::string& text) {
  int fd = ::open(path, O_WRONLY | O_CLOEXEC);
  bool written = fd >= 0 && ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  if (fd >= 0) ::close(fd);
  return written;
}

// Root makes a mount namespace; anyone else first a user namespace, where
// they are root. In it, /dev and /run are empty file systems of the test's.
std::optional<std::string> enterPrivateNamespace() {
  const uid_t uid = ::getuid();
  const gid_t gid = ::getgid();
  if (::unshare(CLONE_NEWNS) != 0) {
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return std::string("unshare: ") + std::strerror(errno);
    if (!writeFile("/proc/self/setgroups", "deny") ||
        !writeFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1") ||
        !writeFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1"))
      return std::string("mapping the user: ") + std::strerror(errno);
  }
  if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    return std::string("making mounts private: ") + std::strerror(errno);
  for (const char* at : {"/dev", "/run"}) {
    if (::mount("tmpfs", at, "tmpfs", MS_NOSUID, "size=1m") != 0)
      return std::string("tmpfs on ") + at + ": " + std::strerror(errno);
  }
  if (::mkdir("/run/systemd", 0755) != 0 || ::mkdir("/run/systemd/journal", 0755) != 0)
    return std::string("/run/systemd/journal: ") + std::strerror(errno);
  return std::nullopt;
}

}  // namespace
}  // namespace palvin

// Before any thread exists, as a user namespace requires. With no shared
// container, the extension writes no log file.
int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  for (const char* name : {"PALVIN_SHARED_CONTAINER", "XDG_DATA_HOME", "HOME"}) ::unsetenv(name);
  if (auto problem = palvin::enterPrivateNamespace()) {
    std::fprintf(stderr, "SKIPPED: no private namespace here (%s)\n", problem->c_str());
    return 77;
  }
  return RUN_ALL_TESTS();
}
