#include <fcntl.h>
#include <gtest/gtest.h>
#include <palvin/identifiers.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <future>
#include <thread>

#include "platform/linux_files.h"
#include "platform/linux_localization.h"
#include "platform/linux_mount_table.h"
#include "platform/linux_platform.h"
#include "platform/linux_strings_file.h"
#include "services/log.h"
#include "support/host_locale.h"
#include "support/private_namespace.h"
#include "support/temp_dir.h"

namespace palvin {
namespace {

namespace fs = std::filesystem;
using Cases = std::vector<std::pair<std::string, std::string>>;
using testing::writeText;

// An unusual mask, set before any test runs, so that a mode the platform
// sets is seen to hold whatever the mask.
const mode_t kTestUmask = [] {
  ::umask(027);
  return mode_t{027};
}();

// The error's description, empty on success.
const auto errorOf = [](const auto& result) { return result.ok() ? std::string() : result.error(); };

// Each test gets a directory of its own and its environment back afterwards.
class Linux : public ::testing::Test {
 protected:
  Linux() {
    for (char** entry = environ; *entry != nullptr; ++entry) savedEnv.emplace_back(*entry);
  }
  ~Linux() override {
    ::clearenv();
    for (const auto& e : savedEnv) ::setenv(e.substr(0, e.find('=')).c_str(), e.c_str() + e.find('=') + 1, 1);
  }
  std::string at(std::string_view name) const { return dir / name; }
  std::size_t entries() const {
    return std::distance(fs::directory_iterator(dir.str()), fs::directory_iterator());
  }
  static void setEnv(const char* name, const char* to) { to ? ::setenv(name, to, 1) : ::unsetenv(name); }

  testing::TempDir dir;
  std::vector<std::string> savedEnv;
  LinuxPlatform platform;
};

// --- Files ----------------------------------------------------------------

// Whatever the host app, the disk or another process leaves in a catalogue's
// place, a read fails at once with the reason the log shows, in the host's
// locale too (a decimal comma here). A dangling link has a date of its own, so
// it is read and fails rather than pass for a missing file.
TEST_F(Linux, ReadsWholeFilesUpToTheLimitAndDatesThemAndLinksToTheNanosecond) {
  const testing::HostLocale german("de_DE.UTF-8");
  ASSERT_TRUE(german.active());
  const std::string binary("a\0b\n\xFF", 5);
  writeText(at("data"), binary);
  for (const auto& [name, size] : {std::pair{"limit", 0}, {"65.1", (1 << 20) + (1 << 20) / 10}}) {
    writeText(at(name), "");
    fs::resize_file(at(name), LinuxPlatform::kMaxReadSize + size);  // sparse
  }
  ASSERT_EQ(::mkfifo(at("fifo").c_str(), 0600), 0);
  ASSERT_EQ(::symlink("/dev/zero", at("zero").c_str()), 0);
  ASSERT_EQ(::symlink("gone", at("dangling").c_str()), 0);
  fs::create_directory(at("folder"));
  testing::Watchdog guard;
  EXPECT_EQ(platform.readFile(at("data")).value(), binary);
  EXPECT_EQ(platform.readFile(at("limit")).value().size(), LinuxPlatform::kMaxReadSize);
  for (const auto& [name, reason] : Cases{{"fifo", "is a FIFO, not a regular file"},
                                          {"zero", "is a character device, not a regular file"},
                                          {"folder", "is a directory, not a regular file"},
                                          {"65.1", "is 65.1 MiB, larger than the 64 MiB limit"},
                                          {"dangling", "No such file or directory"}}) {
    EXPECT_TRUE(platform.modificationDate(at(name)).ok()) << name;
    EXPECT_EQ(errorOf(platform.readFile(at(name))), at(name) + ": " + reason);
  }
  // From an offset (a log's new lines), up to the limit counted from there.
  EXPECT_EQ(linux_files::readFile(at("data"), 3, 2).value() + linux_files::readFile(at("data"), 0, 9).value(),
            binary.substr(2));
  // sysfs gives some files a size of 4096 bytes, larger than what they hold.
  const std::string shorter = "/sys/devices/system/cpu/online";
  if (fs::exists(shorter)) {
    EXPECT_EQ(platform.readFile(shorter).value(), testing::readText(shorter));
  }
  // A link's date is its own and its target's.
  ASSERT_EQ(::symlink("data", at("link").c_str()), 0);
  const timespec times[2] = {{1, 0}, {1700000000, 123456789}}, linkTimes[2] = {{1, 0}, {1600000000, 1}};
  ASSERT_EQ(::utimensat(AT_FDCWD, at("data").c_str(), times, 0), 0);
  ASSERT_EQ(::utimensat(AT_FDCWD, at("link").c_str(), linkTimes, AT_SYMLINK_NOFOLLOW), 0);
  EXPECT_EQ(platform.modificationDate(at("data")).value(),
            (ModificationDate{{1700000000, 123456789}, std::nullopt}));
  EXPECT_EQ(platform.modificationDate(at("link")).value(),
            (ModificationDate{{1600000000, 1}, FileTime{1700000000, 123456789}}));
  // A link to a folder is no folder: the selection describes the link itself.
  ASSERT_EQ(::symlink("folder", at("folder-link").c_str()), 0);
  EXPECT_EQ(platform.isDirectory(at("folder")), true);
  EXPECT_EQ(platform.isDirectory(at("folder-link")), false);
  // A type the file manager handed over is the answer, without a look at the
  // disk (here it contradicts the disk); items given as paths alone are looked at.
  platform.setSelection(
      std::vector<SelectedItem>{{at("folder"), false}, {at("absent"), true}, {at("folder-link")}});
  EXPECT_EQ(platform.isDirectory(at("folder")), false);
  EXPECT_EQ(platform.isDirectory(at("absent")), true);
  EXPECT_EQ(platform.isDirectory(at("folder-link")), false);
  platform.setSelection(std::vector<std::string>{at("folder")});
  EXPECT_EQ(platform.isDirectory(at("folder")), true);
}

// Readers see one whole version or the other while a writer alternates them.
TEST_F(Linux, AtomicWriteReplacesWholeFilesPrivatelyAndLeavesNoTemporaryFile) {
  const std::string versions[2] = {std::string(1 << 20, 'a'), std::string(1 << 20, 'b')};
  ASSERT_TRUE(platform.writeFileAtomically(at("A.json"), versions[0]).ok());
  std::atomic<bool> writing{true};
  std::thread writer([&] {
    for (int i = 1; i <= 200; ++i) (void)platform.writeFileAtomically(at("A.json"), versions[i % 2]);
    writing = false;
  });
  int torn = 0;
  do {
    auto content = platform.readFile(at("A.json"));
    torn += !content.ok() || (*content != versions[0] && *content != versions[1]);
  } while (writing);
  writer.join();
  EXPECT_EQ(torn, 0);
  EXPECT_EQ(platform.readFile(at("A.json")).value(), versions[0]);
  EXPECT_EQ(fs::status(at("A.json")).permissions(), fs::perms(0600));
  // Failing before the temporary file exists and after; root can't be stopped by permissions.
  fs::create_directory(at("taken"));
  for (const auto& [path, error] :
       Cases{{at("no/B.json"), "No such file or directory"}, {at("taken"), "Is a directory"}}) {
    EXPECT_EQ(errorOf(platform.writeFileAtomically(path, "x")), path + ": " + error);
  }
  EXPECT_EQ(entries(), 2u) << "A.json and taken, nothing else";
}

TEST_F(Linux, CreateDirectoriesMakesMissingParentsAndAcceptsExistingOnes) {
  writeText(at("file"), "x");
  for (auto path : {at("a//b/c/"), at("a/b/c"), std::string("/")})
    EXPECT_TRUE(platform.createDirectories(path).ok());
  EXPECT_TRUE(fs::is_directory(at("a/b/c")));
  EXPECT_EQ(fs::status(at("a/b")).permissions(), fs::perms(0700 & ~kTestUmask));
  for (auto path : {at("file"), at("file/sub")})
    EXPECT_EQ(errorOf(platform.createDirectories(path)), path + ": Not a directory");
}

// --- Container and launching --------------------------------------

// The host app started with PALVIN_SHARED_CONTAINER, the tool and the
// extension all take the variable first.
TEST_F(Linux, ContainerFollowsTheEnvironmentOnEveryCallAndCreatesNothing) {
  const std::string group(ids::kAppGroupIdentifier), fallback = "/home/u/.local/share/" + group;
  // PALVIN_SHARED_CONTAINER, XDG_DATA_HOME, HOME
  using Case = std::tuple<const char*, const char*, const char*, std::optional<std::string>>;
  for (const auto& [given, dataHome, home, expected] :
       {Case{nullptr, "/xdg/", "/home/u", "/xdg/" + group}, Case{"/shared", "/xdg/", "/home/u", "/shared"},
        Case{"relative", "/xdg/", "/home/u", "/xdg/" + group}, Case{"", "relative", "/home/u", fallback},
        Case{nullptr, nullptr, "", std::nullopt}, Case{nullptr, nullptr, nullptr, std::nullopt},
        Case{nullptr, dir.str().c_str(), nullptr, at(group)}}) {
    setEnv("PALVIN_SHARED_CONTAINER", given);
    setEnv("XDG_DATA_HOME", dataHome);
    setEnv("HOME", home);
    EXPECT_EQ(platform.containerPath(group), expected)
        << (given ? given : "-") << " " << (dataHome ? dataHome : "-") << " " << (home ? home : "-");
  }
  EXPECT_EQ(entries(), 0u);
}

// Starts the bundle's AppRun and waits for the launch's outcome.
std::optional<std::string> launch(LinuxPlatform& platform, const std::string& bundle, bool activates) {
  std::promise<std::optional<std::string>> outcome;
  platform.openApplication(bundle, {.activates = activates, .addsToRecentItems = false},
                           [&](std::optional<std::string> error) { outcome.set_value(std::move(error)); });
  return outcome.get_future().get();
}

// The host app gets the container in use, whatever the caller's environment
// held, and no variable when there is none.
TEST_F(Linux, OpenApplicationStartsAppRunWithActivationAndTheContainerInUse) {
  setEnv("XDG_DATA_HOME", nullptr);
  setEnv("HOME", nullptr);
  const std::string appRun = at("A.app/AppRun"), record = appRun + ".done";
  fs::create_directory(at("A.app"));
  writeText(appRun,
            "#!/bin/sh\nprintf '%s\\n' \"$0\" \"$@\" \"${PALVIN_SHARED_CONTAINER-(unset)}\" >\"$0.out\"\n"
            "mv \"$0.out\" \"$0.done\"\n");
  EXPECT_EQ(launch(platform, at("B.app"), true), at("B.app/AppRun: No such file or directory"));
  fs::permissions(appRun, fs::perms::owner_exec, fs::perm_options::add);
  using Case = std::tuple<bool, std::optional<std::string>, const char*, std::string>;
  for (const auto& [activates, option, variable, passed] :
       {Case{true, at("C"), "/other", "--activate\n" + at("C")},
        Case{false, std::nullopt, "/given", "/given"}, Case{false, std::nullopt, nullptr, "(unset)"}}) {
    fs::remove(record);
    setEnv("PALVIN_SHARED_CONTAINER", variable);
    LinuxPlatform launcher({.container = option});
    EXPECT_EQ(launch(launcher, at("A.app"), activates), std::nullopt);
    for (int i = 0; i < 6000 && !fs::exists(record); ++i) ::usleep(5000);
    EXPECT_EQ(platform.readFile(record).value(), appRun + "\n" + passed + "\n");
  }
}

// --- Mount table ---------------------------------------------------------------

TEST_F(Linux, NotificationReachesAListeningFifoAndCostsNothingWithoutOne) {
  LinuxPlatform withContainer({.container = dir.str()});
  withContainer.postNotification("org.example.request");  // no notify directory: nothing happens
  fs::create_directories(dir / "notify");
  const std::string fifo = at("notify/org.example.request");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  withContainer.postNotification("org.example.request");  // FIFO without a reader: no block, no error
  int reader = ::open(fifo.c_str(), O_RDWR | O_NONBLOCK);
  ASSERT_GE(reader, 0);
  withContainer.postNotification("org.example.request");
  withContainer.postNotification("../escape");  // names never leave the notify directory
  char buffer[64] = {};
  EXPECT_EQ(::read(reader, buffer, sizeof buffer), 20);
  EXPECT_STREQ(buffer, "org.example.request\n");
  ::close(reader);
}

TEST(LinuxMounts, ParsesMountPointsWithEscapes) {
  std::string_view sample =
      "36 27 8:17 / /media/usb\\040stick rw - vfat /dev/sdb1 rw\n"
      "37 27 0:32 / /mnt/back\\134slash\\011tab\\012line rw - tmpfs tmpfs rw\n"
      "38 27 0:33 / /mnt/not\\08octal\\04x rw - tmpfs tmpfs rw\n"
      "39 27 0:34 /\n\n"
      "40 27 8:1 /sub / rw - ext4 /dev/sda1 rw\n"
      "41 27 0:35 / /last";
  EXPECT_EQ(linux_mount_table::mountPoints(sample),
            (std::vector<std::string>{"/media/usb stick", "/mnt/back\\slash\ttab\nline",
                                      "/mnt/not\\08octal\\04x", "/", "/last"}));
  auto real = LinuxPlatform().mountedVolumePaths();  // /proc files claim size 0 yet have content
  EXPECT_TRUE(real && std::count(real->begin(), real->end(), "/") > 0);
}

// Real mount events, in a child process with a mount namespace of its own so
// that nothing outside sees the tmpfs. Each handler finds the mount table as
// the event left it, and an observation stopped from inside its own handler is
// not called again while the other goes on (a controller's refresh on an event
// is finder-sync-test's). The child reports through its exit status.
TEST_F(Linux, MountEventsReachEveryLiveObserverInAPrivateNamespace) {
  const std::string mountPoint = at("mnt");
  fs::create_directory(mountPoint);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    auto fail = [](int status, const std::string& why) {
      std::fprintf(stderr, "mount events: %s\n", why.c_str());  // the test's own error output
      ::_exit(status);
    };
    if (auto problem = testing::enterPrivateMountNamespace()) fail(77, *problem);
    LinuxPlatform linux;
    std::atomic<int> stoppedInside{0}, kept{0};
    std::atomic<bool> seen{false};  // the mount point, by the last call
    VolumeObservation self = 0;
    self = linux.observeVolumeChanges([&] {
      ++stoppedInside;
      linux.stopObservingVolumeChanges(self);
    });
    linux.observeVolumeChanges([&] {
      auto volumes = linux.mountedVolumePaths().value_or(std::vector<std::string>{});
      seen = std::count(volumes.begin(), volumes.end(), mountPoint) > 0;
      ++kept;
    });
    if (::mount("tmpfs", mountPoint.c_str(), "tmpfs", 0, "size=64k") != 0)
      fail(77, std::string("mounting a tmpfs: ") + std::strerror(errno));
    if (!testing::waitFor([&] { return seen.load(); })) fail(1, "no event showed the mount");
    const int before = kept;
    if (::umount(mountPoint.c_str()) != 0) fail(1, std::string("umount: ") + std::strerror(errno));
    if (!testing::waitFor([&] { return kept > before && !seen; })) fail(1, "no event showed the unmount");
    if (stoppedInside != 1)
      fail(1, "stopped inside its handler, yet called " + std::to_string(stoppedInside) + " times");
    ::_exit(0);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status)) << "the child ended by signal " << WTERMSIG(status);
  if (WEXITSTATUS(status) == 77)
    GTEST_SKIP() << "no private mount namespace here (the error output says why)";
  EXPECT_EQ(WEXITSTATUS(status), 0) << "the error output says why";
}

// --- Threads ----------------------------------------------------------------

// The log's worker and the mount watcher, started from a thread that blocks
// nothing, block every signal the host might send, as does every other thread
// of ours.
TEST_F(Linux, ThreadsTheExtensionStartsBlockEverySignal) {
  LinuxPlatform logging({.container = dir.str()});
  ScopedPlatform installed(logging);
  FinderLog::shutdown();
  sigset_t none, saved;
  sigemptyset(&none);
  pthread_sigmask(SIG_SETMASK, &none, &saved);
  FinderLog::log(FinderLog::Level::info, "starts the worker");
  const VolumeObservation observation = logging.observeVolumeChanges([] {});
  pthread_sigmask(SIG_SETMASK, &saved, nullptr);
  const unsigned long long wanted = (1ull << (SIGHUP - 1)) | (1ull << (SIGINT - 1)) |
                                    (1ull << (SIGPIPE - 1)) | (1ull << (SIGTERM - 1)) |
                                    (1ull << (SIGCHLD - 1)) | (1ull << (SIGUSR1 - 1));
  std::size_t others = 0;
  for (const auto& task : fs::directory_iterator("/proc/self/task")) {
    if (task.path().filename() == std::to_string(::gettid())) continue;
    const std::string status = testing::readText(task.path() / "status");
    EXPECT_EQ(std::stoull(status.substr(status.find("SigBlk:") + 7), nullptr, 16) & wanted, wanted) << task;
    ++others;
  }
  EXPECT_GE(others, 2u);
  logging.stopObservingVolumeChanges(observation);
}

// --- Localised strings ------------------------------------------------------------

std::string utf16(std::u16string_view text, bool bigEndian) {
  std::string bytes = bigEndian ? "\xFE\xFF" : "\xFF\xFE";
  const int first = bigEndian ? 8 : 0;
  for (char16_t unit : text)
    bytes += {static_cast<char>(unit >> first), static_cast<char>(unit >> (8 - first))};
  return bytes;
}

TEST(StringsFile, ParsesEntriesEscapesCommentsAndEncodingsAndNamesTheFaultyLine) {
  for (const auto& [input, expected] :
       Cases{{"/* head\n * more */\n\"a\"=\"//b\"; // tail\n  \"c\" =\n \"d\" ;", "a=//b|c=d|"},
             {R"("k" = "q\"u\\o\n\t\'x\q\U00e9\U2192\101";)", "k=q\"u\\o\n\t'xqé→A|"},
             // Lone surrogate halves become U+FFFD.
             {R"("k" = "\UD83D\UDE00 \UDE00\UD83Dx";)", "k=😀 \xEF\xBF\xBD\xEF\xBF\xBDx|"},
             {"bare_key.1 = \"v\"; \"only\"; bare_key.1 = \"w\";", "bare_key.1=w|only=only|"},
             {"\xEF\xBB\xBF\"Convert\" = \"Konvertieren — ü\";", "Convert=Konvertieren — ü|"},
             {utf16(u"/* c */ \"a\" = \"ü😀\";", false), "a=ü😀|"},
             {utf16(u"\"a\" = \"ü\";", true), "a=ü|"},
             // A table that fails is passed over, so these only have to fail, on the right line.
             {"\"a\" = \"b\"\n\"c\" = \"d\";", "line 2: expected ';' after the value"},
             {"\"a\" \"b\";", "line 1: expected '=' after the key"},
             {"\n\n\"a\" = \"b;", "line 3: unterminated string"},
             {"\"a\" = \"\xC3\";", "not valid UTF-8"},
             {utf16(u"\"\xD800\"", false), "not valid UTF-16"}}) {
    auto table = linux_strings_file::parse(input);
    std::string got = table.ok() ? "" : table.error();
    for (const auto& [key, value] : table.ok() ? *table : linux_strings_file::Table{})
      got += key + "=" + value + "|";
    EXPECT_EQ(got, expected) << input;
  }
}

// Every table the bundle ships parses, and translates exactly English's keys.
TEST(StringsFile, ShippedTablesTranslateTheEnglishKeys) {
  const fs::path resources = PALVIN_SOURCE_DIR "/src/finder/Resources";
  auto keys = [&](const fs::path& lproj) {
    auto table = linux_strings_file::parse(testing::readText(resources / lproj / "Localizable.strings"));
    std::vector<std::string> out;
    for (const auto& entry : table.ok() ? *table : linux_strings_file::Table{}) out.push_back(entry.first);
    return table.ok() ? out : std::vector<std::string>{table.error()};
  };
  EXPECT_GT(keys("en.lproj").size(), 1u);
  for (const auto& lproj : fs::directory_iterator(resources))
    EXPECT_EQ(keys(lproj.path().filename()), keys("en.lproj")) << lproj.path();
}

TEST(StringsFile, LocaleChoosesTablesBestFirst) {
  for (const auto& [locale, names] : Cases{{"sr_RS@latin", "sr_RS sr-RS sr en"},
                                           {"zh_CN.UTF-8", "zh_CN zh-CN zh-Hans zh en"},
                                           {"zh_TW", "zh_TW zh-TW zh-Hant zh en"},
                                           {"zh_HK.Big5", "zh_HK zh-HK zh-Hant zh en"},
                                           {"en_GB", "en_GB en-GB en"},
                                           {"C.UTF-8", "en"}}) {
    std::string got;
    for (const auto& name : linux_localization::lprojNames(locale)) got += (got.empty() ? "" : " ") + name;
    EXPECT_EQ(got, names) << locale;
  }
}

TEST_F(Linux, LocalizedStringUsesTheFirstReadableTableOfTheUsersLocale) {
  for (const auto& [language, table] :
       Cases{{"de", utf16(u"\"Convert using Palvin\" = \"Mit Palvin konvertieren\";", false)},
             {"en", "\"Convert using Palvin\" = \"Convert with Palvin\";"},
             {"fr", "\"Convert using Palvin\" = broken"}}) {  // doesn't parse: passed over
    fs::create_directories(at(language + ".lproj"));
    writeText(at(language + ".lproj/Localizable.strings"), table);
  }
  using Case = std::tuple<const char*, const char*, const char*, std::string>;  // LC_ALL, LC_MESSAGES, LANG
  for (const auto& [all, messages, lang, expected] :
       {Case{"", "de_AT", "fr_FR", "Mit Palvin konvertieren"},
        Case{"de_DE.UTF-8", "fr_FR", "fr_FR", "Mit Palvin konvertieren"},
        Case{nullptr, nullptr, "fr_FR", "Convert with Palvin"}}) {
    setEnv("LC_ALL", all);
    setEnv("LC_MESSAGES", messages);
    setEnv("LANG", lang);
    LinuxPlatform localized({.stringsDirectory = dir.str()});
    EXPECT_EQ(localized.localizedString("Convert using Palvin"), expected) << lang;
    EXPECT_EQ(localized.localizedString("Untranslated"), "Untranslated");
  }
  EXPECT_EQ(platform.localizedString("Convert using Palvin"), "Convert using Palvin");
}

}  // namespace
}  // namespace palvin
