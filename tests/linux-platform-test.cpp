#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <future>
#include <mutex>
#include <thread>

#include <palvin/identifiers.h>

#include "platform/linux_localization.h"
#include "platform/linux_mount_table.h"
#include "platform/linux_platform.h"
#include "platform/strings_file.h"

namespace palvin {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// An unusual mask, set before any test runs (the platform reads it once), so
// that a mode can only match by following it.
const mode_t kTestUmask = [] {
  ::umask(027);
  return mode_t{027};
}();

constexpr const char* kInNamespace = "PALVIN_TEST_IN_MOUNT_NAMESPACE";

class TempDir {
 public:
  TempDir() {
    std::string pattern = (fs::temp_directory_path() / "palvin-linux-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) std::abort();
    path_ = pattern;
  }
  ~TempDir() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  std::string operator/(std::string_view name) const { return (path_ / name).string(); }
  std::string str() const { return path_.string(); }
  std::vector<std::string> entries() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(path_)) names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
  }

 private:
  fs::path path_;
};

void writeText(const std::string& path, std::string_view text) {
  std::ofstream(path, std::ios::binary) << text;
}

std::string readText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

unsigned modeOf(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
}

// Sets or removes environment variables for a scope and puts them back.
class ScopedEnv {
 public:
  void set(const char* name, const char* value) {
    if (saved_.count(name) == 0) {
      const char* old = std::getenv(name);
      saved_[name] = old ? std::optional<std::string>(old) : std::nullopt;
    }
    value ? ::setenv(name, value, 1) : ::unsetenv(name);
  }
  ~ScopedEnv() {
    for (const auto& [name, value] : saved_) value ? ::setenv(name.c_str(), value->c_str(), 1) : ::unsetenv(name.c_str());
  }

 private:
  std::map<std::string, std::optional<std::string>> saved_;
};

// Runs `work` and ends the whole run if it hangs: a blocked system call can't
// be interrupted, and carrying on would leave it holding the test's objects.
template <class F>
auto withWatchdog(F work) {
  auto task = std::make_shared<std::packaged_task<decltype(work())()>>(std::move(work));
  auto result = task->get_future();
  std::thread([task] { (*task)(); }).detach();
  if (result.wait_for(60s) != std::future_status::ready) {
    std::fprintf(stderr, "hung: a platform call did not return\n");
    std::abort();
  }
  return result.get();
}

// A table row: what an operation on `path` must answer.
struct PathError {
  std::string path;
  std::string error;
};

void makeSparseFile(const std::string& path, std::uint64_t size) {
  int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::ftruncate(fd, static_cast<off_t>(size)), 0);
  ::close(fd);
}

// Polls until `ready` holds; false after a generous deadline.
template <class F>
bool eventually(F ready) {
  for (auto deadline = std::chrono::steady_clock::now() + 30s; std::chrono::steady_clock::now() < deadline;) {
    if (ready()) return true;
    std::this_thread::sleep_for(5ms);
  }
  return ready();
}

// --- Files ----------------------------------------------------------------

TEST(LinuxFiles, ModificationDateHasNanosecondsAndFollowsChanges) {
  TempDir dir;
  std::string file = dir / "capabilities.json";
  writeText(file, "{}");
  LinuxPlatform platform;
  for (timespec when : {timespec{1700000000, 123456789}, timespec{1600000000, 1}, timespec{1700000000, 123456790}}) {
    timespec times[2] = {when, when};
    ASSERT_EQ(::utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
    auto date = platform.modificationDate(file);
    ASSERT_TRUE(date.ok()) << date.error();
    EXPECT_EQ(*date, (FileTime{when.tv_sec, when.tv_nsec}));
  }
  auto missing = platform.modificationDate(dir / "none.json");
  ASSERT_FALSE(missing.ok());
  EXPECT_EQ(missing.error(), dir / "none.json" + ": No such file or directory");
}

TEST(LinuxFiles, ReadFileReturnsWholeContent) {
  TempDir dir;
  LinuxPlatform platform;
  std::string binary("a\0b\n\xFF", 5);
  writeText(dir / "data", binary);
  writeText(dir / "empty", "");
  EXPECT_EQ(*platform.readFile(dir / "data"), binary);
  EXPECT_EQ(*platform.readFile(dir / "empty"), "");
  // /proc files claim size 0 yet have content.
  auto mounts = platform.readFile("/proc/self/mountinfo");
  ASSERT_TRUE(mounts.ok()) << mounts.error();
  EXPECT_NE(mounts->find(" / "), std::string::npos);
}

TEST(LinuxFiles, ReadFileRefusesWhatCouldBlockOrExhaustMemory) {
  TempDir dir;
  ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
  ASSERT_EQ(::symlink("/dev/zero", (dir / "zero").c_str()), 0);
  ASSERT_EQ(::mkdir((dir / "directory").c_str(), 0700), 0);
  makeSparseFile(dir / "huge", LinuxPlatform::kMaxReadSize + (1 << 20));
  PathError cases[] = {
      {dir / "fifo", dir / "fifo" + ": is a FIFO, not a regular file"},
      {dir / "zero", dir / "zero" + ": is a character device, not a regular file"},
      {"/dev/null", "/dev/null: is a character device, not a regular file"},
      {dir / "directory", dir / "directory" + ": is a directory, not a regular file"},
      {dir / "huge", dir / "huge" + ": is 65.0 MiB, larger than the 64 MiB limit"},
      {dir / "missing", dir / "missing" + ": No such file or directory"},
  };
  LinuxPlatform platform;
  for (const auto& c : cases) {
    auto result = withWatchdog([&] { return platform.readFile(c.path); });
    ASSERT_FALSE(result.ok()) << c.path;
    EXPECT_EQ(result.error(), c.error);
  }
}

TEST(LinuxFiles, ReadFileTakesAFileOfExactlyTheLimit) {
  TempDir dir;
  makeSparseFile(dir / "limit", LinuxPlatform::kMaxReadSize);
  LinuxPlatform platform;
  auto content = platform.readFile(dir / "limit");
  ASSERT_TRUE(content.ok()) << content.error();
  EXPECT_EQ(content->size(), LinuxPlatform::kMaxReadSize);
}

TEST(LinuxFiles, AtomicWriteReplacesContentWithUmaskModeAndNoLeftovers) {
  TempDir dir;
  LinuxPlatform platform;
  std::string target = dir / "ABC.json";
  ASSERT_TRUE(platform.writeFileAtomically(target, "first").ok());
  ASSERT_TRUE(platform.writeFileAtomically(target, "second").ok());
  EXPECT_EQ(readText(target), "second");
  EXPECT_EQ(modeOf(target), 0666u & ~kTestUmask);
  EXPECT_EQ(dir.entries(), std::vector<std::string>{"ABC.json"});
}

TEST(LinuxFiles, FailedAtomicWriteReportsAndLeavesNothingBehind) {
  // Failures that hold for root too, which permission bits don't stop.
  TempDir dir;
  writeText(dir / "plain", "x");
  ASSERT_EQ(::mkdir((dir / "taken").c_str(), 0700), 0);
  PathError cases[] = {
      {dir / "plain/request.json", dir / "plain/request.json" + ": Not a directory"},
      {dir / "taken", dir / "taken" + ": Is a directory"},
      {dir / "absent/request.json", dir / "absent/request.json" + ": No such file or directory"},
  };
  LinuxPlatform platform;
  for (const auto& c : cases) {
    auto status = platform.writeFileAtomically(c.path, "content");
    ASSERT_FALSE(status.ok()) << c.path;
    EXPECT_EQ(status.error(), c.error);
    EXPECT_EQ(dir.entries(), (std::vector<std::string>{"plain", "taken"}));
    EXPECT_TRUE(fs::is_empty(dir / "taken"));
  }
}

TEST(LinuxFiles, ConcurrentReaderSeesOnlyWholeVersions) {
  TempDir dir;
  LinuxPlatform platform;
  std::string target = dir / "capabilities.json";
  const std::string versions[2] = {std::string(1 << 20, 'a'), std::string(1 << 20, 'b')};
  ASSERT_TRUE(platform.writeFileAtomically(target, versions[0]).ok());
  std::atomic<bool> writing{true};
  std::thread writer([&] {
    for (int i = 1; i <= 200; ++i) (void)platform.writeFileAtomically(target, versions[i % 2]);
    writing = false;
  });
  int reads = 0;
  int torn = 0;
  while (writing || reads == 0) {
    auto content = platform.readFile(target);
    ++reads;
    if (!content.ok() || (*content != versions[0] && *content != versions[1])) ++torn;
  }
  writer.join();
  EXPECT_EQ(torn, 0) << "of " << reads << " reads";
  EXPECT_EQ(dir.entries(), std::vector<std::string>{"capabilities.json"});
}

TEST(LinuxFiles, CreateDirectoriesMakesMissingParents) {
  TempDir dir;
  writeText(dir / "file", "x");
  LinuxPlatform platform;
  ASSERT_TRUE(platform.createDirectories(dir / "a//b/c/").ok());
  EXPECT_TRUE(fs::is_directory(dir / "a/b/c"));
  EXPECT_EQ(modeOf(dir / "a/b"), 0777u & ~kTestUmask);
  EXPECT_TRUE(platform.createDirectories(dir / "a/b/c").ok()) << "an existing directory is success";
  EXPECT_TRUE(platform.createDirectories("/").ok());

  auto underFile = platform.createDirectories(dir / "file/sub/requests");
  ASSERT_FALSE(underFile.ok());
  EXPECT_EQ(underFile.error(), dir / "file/sub/requests" + ": Not a directory");
  auto isFile = platform.createDirectories(dir / "file");
  ASSERT_FALSE(isFile.ok());
  EXPECT_EQ(isFile.error(), dir / "file" + ": Not a directory");
}

std::size_t openDescriptors() {
  return static_cast<std::size_t>(std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()));
}

TEST(LinuxFiles, OpenForWritingAppendsAtTheEnd) {
  TempDir dir;
  std::string log = dir / "finder-extension.log";
  writeText(log, "abc");
  LinuxPlatform platform;
  auto file = platform.openForWriting(log);
  ASSERT_TRUE(file.ok()) << file.error();
  EXPECT_EQ(*(*file)->seekToEnd(), 3u);
  ASSERT_TRUE((*file)->write("de").ok());
  ASSERT_TRUE((*file)->write("f\n").ok());
  EXPECT_TRUE((*file)->close().ok());
  EXPECT_FALSE((*file)->close().ok()) << "closes once";
  EXPECT_FALSE((*file)->write("g").ok());
  EXPECT_EQ(readText(log), "abcdef\n");

  std::size_t before = openDescriptors();
  { auto dropped = platform.openForWriting(log); }
  EXPECT_EQ(openDescriptors(), before) << "the destructor closes an unclosed file";
}

TEST(LinuxFiles, OpenForWritingCreatesNothingAndRefusesSpecialFiles) {
  TempDir dir;
  ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
  LinuxPlatform platform;
  PathError cases[] = {
      {dir / "missing.log", dir / "missing.log" + ": No such file or directory"},
      {dir / "fifo", dir / "fifo" + ": No such device or address"},  // no reader: refused, not waited for
      {"/dev/null", "/dev/null: is a character device, not a regular file"},
      {dir.str(), dir.str() + ": Is a directory"},
  };
  for (const auto& c : cases) {
    auto file = withWatchdog([&] { return platform.openForWriting(c.path); });
    ASSERT_FALSE(file.ok()) << c.path;
    EXPECT_EQ(file.error(), c.error);
  }
  EXPECT_FALSE(fs::exists(dir / "missing.log"));
}

// --- Shared container -------------------------------------------------------

TEST(LinuxContainer, FollowsTheEnvironmentOnEveryCall) {
  const std::string group(ids::kAppGroupIdentifier);
  struct Case {
    const char* dataHome;
    const char* home;
    std::optional<std::string> expected;
  } cases[] = {
      {"/xdg", "/home/u", "/xdg/" + group},
      {"/xdg/", "/home/u", "/xdg/" + group},
      {"", "/home/u", "/home/u/.local/share/" + group},
      {"relative", "/home/u", "/home/u/.local/share/" + group},
      {nullptr, "/home/u", "/home/u/.local/share/" + group},
      {nullptr, "", std::nullopt},
      {nullptr, nullptr, std::nullopt},
  };
  LinuxPlatform platform;
  for (const auto& c : cases) {
    ScopedEnv env;
    env.set("XDG_DATA_HOME", c.dataHome);
    env.set("HOME", c.home);
    EXPECT_EQ(platform.containerPath(ids::kAppGroupIdentifier), c.expected)
        << (c.dataHome ? c.dataHome : "(unset)") << " " << (c.home ? c.home : "(unset)");
  }
  LinuxPlatform fixed({.container = "/given"});
  EXPECT_EQ(fixed.containerPath(ids::kAppGroupIdentifier), "/given");
}

TEST(LinuxContainer, CreatesNothing) {
  TempDir dir;
  ScopedEnv env;
  env.set("XDG_DATA_HOME", dir.str().c_str());
  LinuxPlatform platform;
  ASSERT_EQ(platform.containerPath("group.x"), dir / "group.x");
  EXPECT_TRUE(dir.entries().empty());
}

// --- Notification -----------------------------------------------------------

TEST(LinuxNotification, ReachesAListeningReaderAndIsSilentOtherwise) {
  TempDir dir;
  LinuxPlatform platform({.container = dir.str()});
  const std::string name(ids::kRequestNotificationName);
  platform.postNotification(name);  // no notify directory: nothing happens
  EXPECT_TRUE(dir.entries().empty());

  ASSERT_EQ(::mkdir((dir / "notify").c_str(), 0700), 0);
  std::string fifo = dir / ("notify/" + name);
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  withWatchdog([&] { platform.postNotification(name); });  // no reader: must not block

  int reader = ::open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
  ASSERT_GE(reader, 0);
  platform.postNotification(name);
  platform.postNotification(name);
  char buffer[256] = {};
  ssize_t got = ::read(reader, buffer, sizeof buffer);
  ::close(reader);
  EXPECT_EQ(std::string(buffer, got > 0 ? static_cast<std::size_t>(got) : 0), name + "\n" + name + "\n");

  // A regular file in the FIFO's place is never written to.
  std::string other = dir / "notify/other";
  writeText(other, "");
  platform.postNotification("other");
  EXPECT_EQ(readText(other), "");
}

// --- Launching ----------------------------------------------------------------

std::string makeBundle(const TempDir& dir, mode_t mode) {
  std::string bundle = dir / "Host.app";
  fs::create_directories(bundle);
  writeText(bundle + "/AppRun",
            "#!/bin/sh\n"
            "out=\"${0%/*}/launched\"\n"
            "{ printf 'argv0=%s\\n' \"$0\"\n"
            "  for a in \"$@\"; do printf 'arg=%s\\n' \"$a\"; done\n"
            "  printf 'container=%s\\n' \"${PALVIN_SHARED_CONTAINER-(unset)}\"\n"
            "} > \"$out.partial\" && mv \"$out.partial\" \"$out\"\n");
  ::chmod((bundle + "/AppRun").c_str(), mode);
  return bundle;
}

std::optional<std::string> launch(LinuxPlatform& platform, const std::string& bundle, bool activates) {
  std::promise<std::optional<std::string>> outcome;
  platform.openApplication(bundle, {.activates = activates, .addsToRecentItems = false},
                           [&](std::optional<std::string> error) { outcome.set_value(std::move(error)); });
  auto future = outcome.get_future();
  return future.get();
}

TEST(LinuxLaunch, StartsAppRunWithActivationAndContainer) {
  ScopedEnv env;
  env.set("PALVIN_SHARED_CONTAINER", "/stale");
  for (bool activates : {true, false}) {
    for (bool withContainer : {true, false}) {
      TempDir dir;
      std::string bundle = makeBundle(dir, 0755);
      env.set("XDG_DATA_HOME", nullptr);
      env.set("HOME", nullptr);
      LinuxPlatform platform(withContainer ? LinuxPlatform::Options{.container = dir / "shared"}
                                           : LinuxPlatform::Options{});
      EXPECT_EQ(launch(platform, bundle, activates), std::nullopt);
      std::string record = bundle + "/launched";
      ASSERT_TRUE(eventually([&] { return fs::exists(record); })) << "AppRun did not run";
      std::string expected = "argv0=" + bundle + "/AppRun\n" + (activates ? "arg=--activate\n" : "") +
                             "container=" + (withContainer ? dir / "shared" : "(unset)") + "\n";
      EXPECT_EQ(readText(record), expected);
    }
  }
}

TEST(LinuxLaunch, ReportsWhyAppRunCouldNotStart) {
  TempDir dir;
  LinuxPlatform platform({.container = dir.str()});
  std::string notExecutable = makeBundle(dir, 0644);
  EXPECT_EQ(launch(platform, notExecutable, true), notExecutable + "/AppRun: Permission denied");
  EXPECT_EQ(launch(platform, dir / "Missing.app", true), dir / "Missing.app/AppRun: No such file or directory");
}

// --- Finder stand-ins ---------------------------------------------------------

TEST(LinuxFinder, SelectionDefaultsAppearanceAndSymbols) {
  LinuxPlatform platform({.appearance = "Dark"});
  EXPECT_EQ(platform.selectedItemPaths(), std::vector<std::string>{});
  platform.setSelection({"/a b/c.png", "/d"});
  EXPECT_EQ(platform.selectedItemPaths(), (std::vector<std::string>{"/a b/c.png", "/d"}));

  EXPECT_EQ(platform.userDefaultString("AppleInterfaceStyle"), "Dark");
  EXPECT_EQ(platform.userDefaultString("AppleLanguages"), std::nullopt);
  EXPECT_EQ(LinuxPlatform().userDefaultString("AppleInterfaceStyle"), std::nullopt);

  for (std::string_view name : {"photo", "doc.text", "1.circle"}) EXPECT_TRUE(platform.hasSymbolImage(name)) << name;
  for (std::string_view name : {"", "Photo", "doc text", "../x", "doc-text"}) EXPECT_FALSE(platform.hasSymbolImage(name)) << name;
}

TEST(LinuxFinder, IsDirectoryFollowsLinksAndKnowsWhenItCannotTell) {
  TempDir dir;
  writeText(dir / "file", "");
  ASSERT_EQ(::symlink(dir.str().c_str(), (dir / "link").c_str()), 0);
  LinuxPlatform platform;
  EXPECT_EQ(platform.isDirectory(dir.str()), true);
  EXPECT_EQ(platform.isDirectory(dir / "link"), true);
  EXPECT_EQ(platform.isDirectory(dir / "file"), false);
  EXPECT_EQ(platform.isDirectory(dir / "missing"), std::nullopt);
}

TEST(LinuxFinder, BundlePathIsTheExecutablesDirectoryUnlessGiven) {
  struct stat self {};
  struct stat found {};
  ASSERT_EQ(::stat("/proc/self/exe", &self), 0);
  ASSERT_EQ(::stat((LinuxPlatform().bundlePath() + "/linux-platform-test").c_str(), &found), 0);
  EXPECT_EQ(self.st_ino, found.st_ino);
  EXPECT_EQ(LinuxPlatform({.bundlePath = "/opt/P.app/usr/bin"}).bundlePath(), "/opt/P.app/usr/bin");
}

// --- Mount table ---------------------------------------------------------------

TEST(LinuxMounts, ParsesMountPointsWithEscapes) {
  std::string_view sample =
      "22 27 0:21 / /proc rw,relatime - proc proc rw\n"
      "36 27 8:17 / /media/usb\\040stick rw - vfat /dev/sdb1 rw\n"
      "37 27 0:32 / /mnt/back\\134slash\\011tab\\012line rw - tmpfs tmpfs rw\n"
      "38 27 0:33 / /mnt/not\\08octal rw - tmpfs tmpfs rw\n"
      "39 27 0:34 /\n"
      "\n"
      "40 27 8:1 /sub / rw - ext4 /dev/sda1 rw\n"
      "22 27 0:21 / /proc rw,relatime - proc proc rw\n"
      "41 27 0:35 / /last rw - tmpfs tmpfs rw";
  EXPECT_EQ(mount_table::mountPoints(sample),
            (std::vector<std::string>{"/proc", "/media/usb stick", "/mnt/back\\slash\ttab\nline", "/mnt/not\\08octal",
                                      "/", "/proc", "/last"}));
  EXPECT_TRUE(mount_table::mountPoints("").empty());
}

TEST(LinuxMounts, RealTableIncludesTheRoot) {
  auto volumes = LinuxPlatform().mountedVolumePaths();
  ASSERT_TRUE(volumes.has_value());
  EXPECT_NE(std::find(volumes->begin(), volumes->end(), "/"), volumes->end());
}

TEST(LinuxMounts, StoppingReturnsAndRestartingWorks) {
  std::atomic<int> calls{0};
  LinuxPlatform platform;
  withWatchdog([&] {
    platform.observeVolumeChanges([&] { ++calls; });
    platform.observeVolumeChanges([&] { ++calls; });  // replaces
    platform.stopObservingVolumeChanges();
    platform.stopObservingVolumeChanges();
    platform.observeVolumeChanges([&] { ++calls; });
    return 0;
  });
  withWatchdog([] {
    LinuxPlatform destroyedWhileObserving;
    destroyedWhileObserving.observeVolumeChanges([] {});
    return 0;
  });
  withWatchdog([&] {
    platform.stopObservingVolumeChanges();
    return 0;
  });
  EXPECT_EQ(calls, 0) << "nothing was mounted";
}

// Runs the tests matching `filter` again, in a child with a private mount
// namespace where they may mount freely. Skips where that isn't permitted.
void runInMountNamespace(const std::string& filter) {
  TempDir dir;
  std::string output = dir / "output";
  std::string filterArgument = "--gtest_filter=" + filter;
  std::string marker = std::string(kInNamespace) + "=1";
  std::vector<char*> argv = {const_cast<char*>("linux-platform-test"), filterArgument.data(), nullptr};
  std::vector<char*> envp;
  for (char** entry = environ; *entry != nullptr; ++entry) envp.push_back(*entry);
  envp.push_back(marker.data());
  envp.push_back(nullptr);
  int out = ::open(output.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_GE(out, 0);
  pid_t child = ::fork();
  if (child == 0) {
    if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) _exit(77);
    ::dup2(out, 1);
    ::dup2(out, 2);
    ::execve("/proc/self/exe", argv.data(), envp.data());
    _exit(127);
  }
  ::close(out);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "no permission for a mount namespace";
  std::string log = readText(output);
  ASSERT_EQ(WEXITSTATUS(status), 0) << log;
  if (log.find("[  SKIPPED ]") != std::string::npos) GTEST_SKIP() << log;
  EXPECT_NE(log.find("[  PASSED  ] 1 test"), std::string::npos) << log;
}

TEST(LinuxMounts, WatcherSeesMountsUntilStopped) { runInMountNamespace("InMountNamespace.VolumeWatcher"); }
TEST(LinuxSystemLog, EntriesReachAListeningLogger) { runInMountNamespace("InMountNamespace.SystemLog"); }

TEST(InMountNamespace, VolumeWatcher) {
  if (!std::getenv(kInNamespace)) GTEST_SKIP() << "run by LinuxMounts.WatcherSeesMountsUntilStopped";
  TempDir dir;
  std::string first = dir / "with space";
  std::string second = dir / "second";
  fs::create_directories(first);
  fs::create_directories(second);
  LinuxPlatform platform;
  std::mutex mutex;
  std::condition_variable changed;
  int replaced = 0;
  int calls = 0;
  platform.observeVolumeChanges([&] { ++replaced; });
  platform.observeVolumeChanges([&] {
    std::lock_guard lock(mutex);
    ++calls;
    changed.notify_all();
  });
  if (::mount("tmpfs", first.c_str(), "tmpfs", 0, nullptr) != 0) GTEST_SKIP() << "mount not permitted";
  {
    std::unique_lock lock(mutex);
    ASSERT_TRUE(changed.wait_for(lock, 30s, [&] { return calls > 0; })) << "no event for a mount";
  }
  auto volumes = platform.mountedVolumePaths();
  ASSERT_TRUE(volumes.has_value());
  EXPECT_NE(std::find(volumes->begin(), volumes->end(), first), volumes->end());

  platform.stopObservingVolumeChanges();
  int seen = calls;
  ASSERT_EQ(::umount(first.c_str()), 0);
  ASSERT_EQ(::mount("tmpfs", second.c_str(), "tmpfs", 0, nullptr), 0);
  ASSERT_EQ(::umount(second.c_str()), 0);
  std::this_thread::sleep_for(100ms);  // room for a wrongly delivered event
  EXPECT_EQ(calls, seen);
  EXPECT_EQ(replaced, 0);
}

TEST(InMountNamespace, SystemLog) {
  if (!std::getenv(kInNamespace)) GTEST_SKIP() << "run by LinuxSystemLog.EntriesReachAListeningLogger";
  // A /dev of our own, so that this process's /dev/log is a socket we read.
  if (::mount("tmpfs", "/dev", "tmpfs", 0, nullptr) != 0) GTEST_SKIP() << "mount not permitted";
  {
    LinuxPlatform silent;
    EXPECT_FALSE(silent.unifiedLogEnabled(UnifiedLogType::error)) << "no logger listens yet";
    silent.unifiedLog(UnifiedLogType::error, "dropped");
  }
  int logger = ::socket(AF_UNIX, SOCK_DGRAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, "/dev/log");
  ASSERT_EQ(::bind(logger, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  LinuxPlatform platform;
  for (auto type : {UnifiedLogType::debug, UnifiedLogType::info, UnifiedLogType::error}) {
    EXPECT_TRUE(platform.unifiedLogEnabled(type));
  }
  struct Case {
    UnifiedLogType type;
    std::string message;
    int priority;
  } cases[] = {
      {UnifiedLogType::debug, "detail", 15},
      {UnifiedLogType::info, "Wrote request X.json: 3 file(s) → png", 14},
      {UnifiedLogType::error, "100% %s %n", 11},  // data, never a format
  };
  for (const auto& c : cases) {
    platform.unifiedLog(c.type, c.message);
    char buffer[2048] = {};
    ssize_t got = ::recv(logger, buffer, sizeof buffer - 1, 0);
    ASSERT_GT(got, 0);
    std::string entry(buffer, static_cast<std::size_t>(got));
    EXPECT_EQ(entry.substr(0, entry.find('>') + 1), "<" + std::to_string(c.priority) + ">") << entry;
    std::string tail = std::string(ids::kLogSubsystem) + "[" + std::to_string(::getpid()) + "]: [PalvinFinder] " +
                       c.message;
    EXPECT_NE(entry.find(tail), std::string::npos) << entry;
    EXPECT_EQ(entry.substr(entry.size() - c.message.size()), c.message) << entry;
  }
  ::close(logger);
}

// --- Localised strings ------------------------------------------------------------

std::string utf16(std::u16string_view text, bool bigEndian) {
  std::string bytes = bigEndian ? "\xFE\xFF" : "\xFF\xFE";
  for (char16_t unit : text) {
    char high = static_cast<char>(unit >> 8);
    char low = static_cast<char>(unit & 0xFF);
    bytes += bigEndian ? std::string{high, low} : std::string{low, high};
  }
  return bytes;
}

TEST(StringsFile, ParsesEntriesEscapesCommentsAndEncodings) {
  using Table = strings_file::Table;
  struct Case {
    std::string input;
    Table expected;
  } cases[] = {
      {"", {}},
      {"\"a\" = \"b\";", {{"a", "b"}}},
      {"/* head\n * more */\n\"a\"=\"b\"; // tail\n  \"c\" =\n \"d\" ;", {{"a", "b"}, {"c", "d"}}},
      {R"("k" = "q\"u\\o\n\t\'x\q";)", {{"k", "q\"u\\o\n\t'xq"}}},
      {R"("k" = "\U00e9\U2192\101";)", {{"k", "é→A"}}},
      {R"("k" = "\UD83D\UDE00 \UDE00";)", {{"k", "😀 \xEF\xBF\xBD"}}},
      {"bare_key.1 = \"v\"; \"only\";", {{"bare_key.1", "v"}, {"only", "only"}}},
      {"\"a\" = \"1\"; \"a\" = \"2\";", {{"a", "2"}}},
      {"\"http://x\" = \"//not a comment\";", {{"http://x", "//not a comment"}}},
      {"\xEF\xBB\xBF\"Convert using Palvin\" = \"Mit Palvin konvertieren — ü\";",
       {{"Convert using Palvin", "Mit Palvin konvertieren — ü"}}},
      {utf16(u"/* c */ \"a\" = \"ü😀\";", false), {{"a", "ü😀"}}},
      {utf16(u"\"a\" = \"ü\";", true), {{"a", "ü"}}},
  };
  for (const auto& c : cases) {
    auto table = strings_file::parse(c.input);
    ASSERT_TRUE(table.ok()) << c.input << ": " << table.error();
    EXPECT_EQ(*table, c.expected) << c.input;
  }
}

TEST(StringsFile, RejectsMalformedTablesNamingTheLine) {
  struct Case {
    std::string input;
    std::string error;
  } cases[] = {
      {"\"a\" = \"b\"\n\"c\" = \"d\";", "line 2: expected ';' after the value"},
      {"\"a\" \"b\";", "line 1: expected '=' after the key"},
      {"\n\n\"a\" = \"b;", "line 3: unterminated string"},
      {"\"a\" = ;", "line 1: expected a value"},
      {"/* open", "line 1: unterminated comment"},
      {"\"a\" = \"\xC3\";", "not valid UTF-8"},
      {"\xFF\xFE\x22", "not valid UTF-16"},
      {utf16(u"\"\xD800\"", false), "not valid UTF-16"},
  };
  for (const auto& c : cases) {
    auto table = strings_file::parse(c.input);
    ASSERT_FALSE(table.ok()) << c.input;
    EXPECT_EQ(table.error(), c.error) << c.input;
  }
}

TEST(StringsFile, LocaleChoosesTablesBestFirst) {
  using Names = std::vector<std::string>;
  struct Case {
    std::string locale;
    Names names;
  } cases[] = {
      {"de_DE.UTF-8", {"de_DE", "de-DE", "de", "en"}},
      {"de", {"de", "en"}},
      {"sr_RS@latin", {"sr_RS", "sr-RS", "sr", "en"}},
      {"zh_CN.UTF-8", {"zh_CN", "zh-CN", "zh-Hans", "zh", "en"}},
      {"zh_TW", {"zh_TW", "zh-TW", "zh-Hant", "zh", "en"}},
      {"zh_HK.Big5", {"zh_HK", "zh-HK", "zh-Hant", "zh", "en"}},
      {"zh", {"zh", "zh-Hans", "en"}},
      {"en_GB", {"en_GB", "en-GB", "en"}},
      {"C", {"en"}},
      {"C.UTF-8", {"en"}},
      {"POSIX", {"en"}},
      {"", {"en"}},
  };
  for (const auto& c : cases) EXPECT_EQ(localization::lprojNames(c.locale), c.names) << c.locale;
}

TEST(StringsFile, LocalizedStringUsesTheUsersTable) {
  TempDir dir;
  fs::create_directories(dir / "de.lproj");
  fs::create_directories(dir / "zh-Hant.lproj");
  fs::create_directories(dir / "en.lproj");
  fs::create_directories(dir / "fr.lproj");
  writeText(dir / "de.lproj/Localizable.strings", utf16(u"\"Convert using Palvin\" = \"Mit Palvin konvertieren\";", false));
  writeText(dir / "zh-Hant.lproj/Localizable.strings", "\"Convert using Palvin\" = \"使用 Palvin 轉換\";");
  writeText(dir / "en.lproj/Localizable.strings", "\"Convert using Palvin\" = \"Convert with Palvin\";");
  writeText(dir / "fr.lproj/Localizable.strings", "\"Convert using Palvin\" = broken");
  struct Case {
    const char* all;
    const char* messages;
    const char* lang;
    std::string expected;
  } cases[] = {
      {nullptr, nullptr, "de_DE.UTF-8", "Mit Palvin konvertieren"},
      {"", "de_AT", "fr_FR", "Mit Palvin konvertieren"},
      {"zh_TW.UTF-8", "de_DE", "de_DE", "使用 Palvin 轉換"},
      {nullptr, nullptr, "fr_FR", "Convert with Palvin"},  // a broken table is passed over
      {nullptr, nullptr, "C", "Convert with Palvin"},
  };
  for (const auto& c : cases) {
    ScopedEnv env;
    env.set("LC_ALL", c.all);
    env.set("LC_MESSAGES", c.messages);
    env.set("LANG", c.lang);
    LinuxPlatform platform({.stringsDirectory = dir.str()});
    EXPECT_EQ(platform.localizedString("Convert using Palvin"), c.expected) << c.lang;
    EXPECT_EQ(platform.localizedString("Untranslated"), "Untranslated");
  }
  EXPECT_EQ(LinuxPlatform().localizedString("Convert using Palvin"), "Convert using Palvin");
}

}  // namespace
}  // namespace palvin
