// The extension as a guest in a host process. The test runs in a mount
// namespace of its own, where a stand-in system logger listens on /dev/log and
// a stand-in journal on its socket, each a datagram socket of this test, so
// that what the host and the extension send can be read back. Nothing outside
// the namespace changes.
#include <gtest/gtest.h>
#include <palvin/identifiers.h>
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
#include "support/private_namespace.h"
#include "support/temp_dir.h"

namespace palvin {
namespace {

using Level = FinderLog::Level;

// A datagram socket bound at `path`.
int listenAt(const char* path) {
  ::unlink(path);
  const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path, sizeof address.sun_path - 1);
  EXPECT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << path;
  return fd;
}

// What the socket received so far, one datagram a string.
std::vector<std::string> received(int fd) {
  std::vector<std::string> out;
  std::string buffer(1 << 18, '\0');
  for (ssize_t got; (got = ::recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT)) >= 0;)
    out.emplace_back(buffer.data(), static_cast<std::size_t>(got));
  return out;
}

// One datagram per line in the journal's native protocol: the subsystem and
// category as fields, a message with line feeds in the protocol's sized form.
// A journal that reads nothing fills up: the lines beyond its room are
// dropped, and no call waits for it. Without a journal, nothing is sent. The
// host's own syslog lines keep the identity and facility it chose, while the
// extension logs and after it is gone.
TEST(Guest, JournalEntriesNeverWaitAndTheHostsSyslogIdentitySurvives) {
  testing::Watchdog guard;
  const int syslogd = listenAt("/dev/log"), journald = listenAt("/run/systemd/journal/socket");
  const std::string fields = "SYSLOG_IDENTIFIER=" + std::string(ids::kLogSubsystem) +
                             "\nPALVIN_SUBSYSTEM=" + std::string(ids::kLogSubsystem) +
                             "\nPALVIN_CATEGORY=PalvinFinder\n";
  ::openlog("host-tool", LOG_PID, LOG_LOCAL3);
  ::syslog(LOG_NOTICE, "before");
  {
    LinuxPlatform platform;
    ScopedPlatform installed(platform);
    FinderLog::log(Level::debug, "d");
    FinderLog::log(Level::info, "");
    ::syslog(LOG_NOTICE, "during");
    FinderLog::log(Level::warn, "w = 1");
    FinderLog::log(Level::error, "two\nlines");
    EXPECT_EQ(
        received(journald),
        (std::vector<std::string>{
            "PRIORITY=7\n" + fields + "MESSAGE=d\n", "PRIORITY=6\n" + fields + "MESSAGE=\n",
            "PRIORITY=3\n" + fields + "MESSAGE=w = 1\n",
            "PRIORITY=3\n" + fields + "MESSAGE\n" + std::string("\x09\0\0\0\0\0\0\0", 8) + "two\nlines\n"}));

    constexpr std::size_t kLines = 20000;
    for (std::size_t i = 0; i < kLines; ++i) FinderLog::log(Level::info, "line " + std::to_string(i));
    const auto entries = received(journald);
    EXPECT_GT(entries.size(), 0u);
    EXPECT_LT(entries.size(), kLines);
    FinderLog::shutdown();
  }
  ::syslog(LOG_NOTICE, "after");
  ::closelog();
  // "<priority>Mmm dd hh:mm:ss identity[pid]: message", without the time.
  std::vector<std::string> lines = received(syslogd);
  for (auto& line : lines) line.erase(line.find('>') + 1, 16);
  const std::string host = "<157>host-tool[" + std::to_string(::getpid()) + "]: ";  // LOG_LOCAL3 | LOG_NOTICE
  EXPECT_EQ(lines, (std::vector<std::string>{host + "before", host + "during", host + "after"}));

  ::unlink("/run/systemd/journal/socket");
  EXPECT_FALSE(LinuxPlatform().unifiedLogEnabled(UnifiedLogType::error));
  ::close(syslogd);
  ::close(journald);
}

}  // namespace
}  // namespace palvin

// Before any thread exists, as a user namespace requires: in a namespace of
// the test's own, /dev and /run become empty file systems. With no shared
// container, the extension writes no log file.
int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  for (const char* name : {"PALVIN_SHARED_CONTAINER", "XDG_DATA_HOME", "HOME"}) ::unsetenv(name);
  auto problem = palvin::testing::enterPrivateMountNamespace();
  for (const char* at : {"/dev", "/run"}) {
    if (!problem && ::mount("tmpfs", at, "tmpfs", MS_NOSUID, "size=1m") != 0)
      problem = std::string("tmpfs on ") + at + ": " + std::strerror(errno);
  }
  if (problem || ::mkdir("/run/systemd", 0755) != 0 || ::mkdir("/run/systemd/journal", 0755) != 0) {
    std::fprintf(stderr, "SKIPPED: no private namespace here (%s)\n", problem ? problem->c_str() : "/run");
    return 77;
  }
  return RUN_ALL_TESTS();
}
