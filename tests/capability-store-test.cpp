#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <palvin/identifiers.h>

#include <functional>
#include <string>
#include <vector>

#include "catalogue/capability_store.h"
#include "shared/log.h"
#include "support/fake_platform.h"
#include "support/log_lines.h"
#include "support/run_tool.h"
#include "platform/linux_platform.h"

namespace palvin {
namespace {

using testing::FakePlatform;
using testing::logLines;
using testing::ScopedPlatform;

const std::string kPath = "/container/capabilities.json";

// A decodable document. extensionToFormatId gets two more entries than there
// are formats, so neither count can stand in for the number of sources.
std::string document(std::int64_t version, const std::vector<std::string>& formatIds,
                     const std::vector<std::string>& sourceIds) {
  std::string out = "{\"schemaVersion\": " + std::to_string(version) +
                    ", \"generatedAt\": \"2026-11-23T09:00:00Z\", \"categories\": "
                    "[{\"id\": \"image\", \"label\": \"Images\", \"icon\": \"photo\"}], \"formats\": [";
  for (std::size_t i = 0; i < formatIds.size(); ++i) {
    const std::string& id = formatIds[i];
    out += (i ? ", " : "") + std::string("{\"id\": \"") + id + "\", \"displayName\": \"" + id +
           "\", \"category\": \"image\", \"primaryExtension\": \"" + id + "\"}";
  }
  out += "], \"extensionToFormatId\": {\"x1\": \"a\", \"x2\": \"b\"";
  for (const auto& id : formatIds) out += ", \"" + id + "\": \"" + id + "\"";
  out += "}, \"conversions\": {";
  for (std::size_t i = 0; i < sourceIds.size(); ++i)
    out += (i ? ", \"" : "\"") + sourceIds[i] + "\": [\"png\"]";
  out += "}}";
  return out;
}

const std::string kDocA = document(1, {"png", "jpeg", "pdf"}, {"png", "jpeg"});
const std::string kDocALine = "[DEBUG] Loaded capabilities: 3 formats, 2 sources";
const std::string kDocB = document(1, {"mov"}, {"mov", "wav", "mp3", "ogg"});
const std::string kDocBLine = "[DEBUG] Loaded capabilities: 1 formats, 4 sources";
const std::string kInvalid = "{\"schemaVersion\": 1, \"generatedAt\": ";
const std::string kDecodeFailed = "[ERROR] Failed to decode capabilities: ";

const FileTime kD{1795424400, 123456789};
const FileTime kE{1795424500, 0};

std::vector<std::string> formatIds(const std::shared_ptr<const FinderCapabilities>& caps) {
  std::vector<std::string> ids;
  if (caps) {
    for (const auto& format : caps->formats) ids.push_back(format.id);
  }
  return ids;
}

const std::vector<std::string> kIdsA = {"png", "jpeg", "pdf"};
const std::vector<std::string> kIdsB = {"mov"};

class CapabilityStoreTest : public ::testing::Test {
 protected:
  CapabilityStoreTest() {
    fake.enabledTypes = {UnifiedLogType::debug, UnifiedLogType::info, UnifiedLogType::error};
  }
  // The log queue holds on to the platform until its lines are written.
  ~CapabilityStoreTest() override { FinderLog::flush(); }

  // Lines written since the previous call.
  std::vector<std::string> newLines() {
    auto lines = logLines(fake);
    std::vector<std::string> fresh(lines.begin() + static_cast<std::ptrdiff_t>(seen_), lines.end());
    seen_ = lines.size();
    return fresh;
  }

  void expectEmpty() {
    EXPECT_EQ(store.cached(), nullptr);
    EXPECT_FALSE(store.cachedModificationDate().has_value());
  }

  FakePlatform fake;
  ScopedPlatform scope{fake};
  CapabilityStore store;

 private:
  std::size_t seen_ = 0;
};

// --- The state table, every event from both states ---------------------------

enum class Yields { nothing, held, fresh };
enum class After { empty, loadedAtD, loadedAtE };

struct Row {
  const char* name;
  std::function<void(FakePlatform&)> event;  // what happens before the call
  Yields yields;
  After after;
  std::vector<std::string> lines;  // a line ending in ": " is checked as a prefix
};

void expectLines(const std::vector<std::string>& actual, const std::vector<std::string>& expected) {
  ASSERT_EQ(actual.size(), expected.size()) << ::testing::PrintToString(actual);
  for (std::size_t i = 0; i < expected.size(); ++i) {
    if (expected[i].ends_with(": ")) {
      EXPECT_TRUE(actual[i].starts_with(expected[i]) && actual[i].size() > expected[i].size()) << actual[i];
    } else {
      EXPECT_EQ(actual[i], expected[i]);
    }
  }
}

// Rows that apply from both states. From empty the "held" result cannot occur;
// a failure that keeps the fields keeps them empty.
std::vector<Row> commonRows() {
  return {
      {"file missing", [](FakePlatform& f) { f.removeFile(kPath); }, Yields::nothing, After::empty, {}},
      {"unreadable at a new date",
       [](FakePlatform& f) {
         f.putFile(kPath, kDocB, kE);
         f.failReads = "You don't have permission to view it.";
       },
       Yields::nothing,
       After::loadedAtD,
       {kDecodeFailed + "You don't have permission to view it."}},
      {"undecodable at a new date",
       [](FakePlatform& f) { f.putFile(kPath, kInvalid, kE); },
       Yields::nothing,
       After::loadedAtD,
       {kDecodeFailed}},
      {"version 2 at a new date",
       [](FakePlatform& f) { f.putFile(kPath, document(2, {"png"}, {"png"}), kE); },
       Yields::nothing,
       After::empty,
       {"[WARN] Ignoring capabilities: schema 2 != expected 1"}},
      {"version 0",
       [](FakePlatform& f) { f.putFile(kPath, document(0, {"png"}, {}), kE); },
       Yields::nothing,
       After::empty,
       {"[WARN] Ignoring capabilities: schema 0 != expected 1"}},
      {"negative version",
       [](FakePlatform& f) { f.putFile(kPath, document(-7, {"png"}, {}), kE); },
       Yields::nothing,
       After::empty,
       {"[WARN] Ignoring capabilities: schema -7 != expected 1"}},
      {"version 1 at a new date",
       [](FakePlatform& f) { f.putFile(kPath, kDocB, kE); },
       Yields::fresh,
       After::loadedAtE,
       {kDocBLine}},
  };
}

TEST_F(CapabilityStoreTest, EveryEventFromEmpty) {
  for (const Row& row : commonRows()) {
    SCOPED_TRACE(row.name);
    CapabilityStore fresh;
    fake.failReads.reset();
    fake.removeFile(kPath);
    row.event(fake);
    auto result = fresh.load();
    expectLines(newLines(), row.lines);
    if (row.yields == Yields::fresh) {
      EXPECT_EQ(formatIds(result), kIdsB);
    } else {
      EXPECT_EQ(result, nullptr);
    }
    if (row.after == After::loadedAtE) {
      EXPECT_EQ(fresh.cached(), result);
      EXPECT_EQ(fresh.cachedModificationDate(), kE);
    } else {
      EXPECT_EQ(fresh.cached(), nullptr);
      EXPECT_FALSE(fresh.cachedModificationDate().has_value());
    }
  }
}

TEST_F(CapabilityStoreTest, EveryEventFromLoaded) {
  std::vector<Row> rows = commonRows();
  rows.push_back({"date equals the held one", [](FakePlatform&) {}, Yields::held, After::loadedAtD, {}});
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    CapabilityStore loaded;
    fake.failReads.reset();
    fake.putFile(kPath, kDocA, kD);
    auto held = loaded.load();
    ASSERT_EQ(formatIds(held), kIdsA);
    ASSERT_EQ(newLines(), std::vector<std::string>{kDocALine});

    int readsBefore = fake.fileReads();
    row.event(fake);
    auto result = loaded.load();
    expectLines(newLines(), row.lines);
    switch (row.yields) {
      case Yields::nothing:
        EXPECT_EQ(result, nullptr);
        break;
      case Yields::held:
        EXPECT_EQ(result, held);  // the same object: nothing was copied or decoded
        EXPECT_EQ(fake.fileReads(), readsBefore);
        break;
      case Yields::fresh:
        EXPECT_EQ(formatIds(result), kIdsB);
        break;
    }
    switch (row.after) {
      case After::empty:
        EXPECT_EQ(loaded.cached(), nullptr);
        EXPECT_FALSE(loaded.cachedModificationDate().has_value());
        break;
      case After::loadedAtD:
        EXPECT_EQ(loaded.cached(), held);
        EXPECT_EQ(loaded.cachedModificationDate(), kD);
        break;
      case After::loadedAtE:
        EXPECT_EQ(loaded.cached(), result);
        EXPECT_EQ(loaded.cachedModificationDate(), kE);
        break;
    }
  }
}

// Without a container nothing reaches the log file, so the unified log is
// where the message shows.
TEST_F(CapabilityStoreTest, NoContainerLogsEveryCallAndKeepsWhatIsHeld) {
  const FakePlatform::UnifiedEntry entry{
      UnifiedLogType::error, "App Group container unavailable: " + std::string(ids::kAppGroupIdentifier)};
  fake.container.reset();
  EXPECT_EQ(store.load(), nullptr);
  expectEmpty();
  EXPECT_EQ(fake.unifiedEntries(), std::vector<FakePlatform::UnifiedEntry>{entry});
  EXPECT_EQ(fake.appGroupAskedFor, ids::kAppGroupIdentifier);

  fake.container = "/container";
  fake.putFile(kPath, kDocA, kD);
  auto held = store.load();
  ASSERT_EQ(formatIds(held), kIdsA);

  fake.container.reset();
  int reads = fake.fileReads();
  for (int call = 0; call < 2; ++call) EXPECT_EQ(store.load(), nullptr);
  auto entries = fake.unifiedEntries();
  ASSERT_EQ(entries.size(), 4u);
  EXPECT_EQ(entries[2], entry);
  EXPECT_EQ(entries[3], entry);
  EXPECT_EQ(store.cached(), held);
  EXPECT_EQ(store.cachedModificationDate(), kD);

  // The container is back and the file unchanged: the held document, unread.
  fake.container = "/container";
  EXPECT_EQ(store.load(), held);
  EXPECT_EQ(fake.fileReads(), reads);
  EXPECT_EQ(newLines(), std::vector<std::string>{kDocALine});
}

// --- Sequences over the cache key --------------------------------------------

TEST_F(CapabilityStoreTest, UnchangedFileIsReadOnce) {
  fake.putFile(kPath, kDocA, kD);
  auto first = store.load();
  auto second = store.load();
  auto third = store.load();
  EXPECT_EQ(formatIds(first), kIdsA);
  EXPECT_EQ(second, first);
  EXPECT_EQ(third, first);
  EXPECT_EQ(fake.fileReads(), 1);
  EXPECT_EQ(newLines(), std::vector<std::string>{kDocALine});
}

TEST_F(CapabilityStoreTest, TouchWithoutContentChangeReadsAgain) {
  fake.putFile(kPath, kDocA, kD);
  auto first = store.load();
  fake.putFile(kPath, kDocA, kE);
  auto second = store.load();
  EXPECT_EQ(fake.fileReads(), 2);
  EXPECT_NE(second, first);
  EXPECT_EQ(*second, *first);
  EXPECT_EQ(store.cachedModificationDate(), kE);
  EXPECT_EQ(newLines(), (std::vector<std::string>{kDocALine, kDocALine}));
}

TEST_F(CapabilityStoreTest, DateIsTheWholeKey) {
  fake.putFile(kPath, kDocA, kD);
  auto held = store.load();
  fake.putFile(kPath, kDocB, kD);  // new content, same date: not seen
  EXPECT_EQ(store.load(), held);
  EXPECT_EQ(fake.fileReads(), 1);

  // One nanosecond is a different date.
  FileTime later = kD;
  ++later.nanoseconds;
  fake.putFile(kPath, kDocB, later);
  EXPECT_EQ(formatIds(store.load()), kIdsB);
  EXPECT_EQ(store.cachedModificationDate(), later);
}

TEST_F(CapabilityStoreTest, OlderDateReadsAgain) {
  fake.putFile(kPath, kDocA, kE);
  (void)store.load();
  fake.putFile(kPath, kDocB, kD);
  EXPECT_EQ(formatIds(store.load()), kIdsB);
  EXPECT_EQ(store.cachedModificationDate(), kD);
  EXPECT_EQ(fake.fileReads(), 2);
}

TEST_F(CapabilityStoreTest, DeletedFileEmptiesSilentlyUntilItComesBack) {
  fake.putFile(kPath, kDocA, kD);
  (void)store.load();
  (void)newLines();
  fake.removeFile(kPath);
  EXPECT_EQ(store.load(), nullptr);
  expectEmpty();
  EXPECT_TRUE(newLines().empty());
  EXPECT_EQ(fake.unifiedEntries().size(), 1u);  // only the first load's line

  // Back with the same date: the store was emptied, so it reads.
  fake.putFile(kPath, kDocA, kD);
  EXPECT_EQ(formatIds(store.load()), kIdsA);
  EXPECT_EQ(fake.fileReads(), 2);
  EXPECT_EQ(newLines(), std::vector<std::string>{kDocALine});
}

TEST_F(CapabilityStoreTest, BrokenFileWithholdsTheCatalogueButKeepsIt) {
  fake.putFile(kPath, kDocA, kD);
  auto held = store.load();
  (void)newLines();

  fake.putFile(kPath, kInvalid, kE);
  EXPECT_EQ(store.load(), nullptr);
  EXPECT_EQ(store.load(), nullptr);
  expectLines(newLines(), {kDecodeFailed, kDecodeFailed});
  EXPECT_EQ(fake.fileReads(), 3);
  EXPECT_EQ(store.cached(), held);
  EXPECT_EQ(store.cachedModificationDate(), kD);

  // The good file returns with its old date: no read, the held document.
  fake.putFile(kPath, kDocA, kD);
  EXPECT_EQ(store.load(), held);
  EXPECT_EQ(fake.fileReads(), 3);
  EXPECT_TRUE(newLines().empty());
}

TEST_F(CapabilityStoreTest, UnreadableFileReportsEveryCall) {
  fake.putFile(kPath, kDocA, kD);
  fake.failReads = "The file couldn't be opened.";
  EXPECT_EQ(store.load(), nullptr);
  EXPECT_EQ(store.load(), nullptr);
  const std::string line = kDecodeFailed + "The file couldn't be opened.";
  EXPECT_EQ(newLines(), (std::vector<std::string>{line, line}));
  expectEmpty();
}

TEST_F(CapabilityStoreTest, WrongVersionWarnsEveryCall) {
  fake.putFile(kPath, document(2, {"png"}, {"png"}), kD);
  EXPECT_EQ(store.load(), nullptr);
  EXPECT_EQ(store.load(), nullptr);
  const std::string line = "[WARN] Ignoring capabilities: schema 2 != expected 1";
  EXPECT_EQ(newLines(), (std::vector<std::string>{line, line}));
  EXPECT_EQ(fake.fileReads(), 2);
  expectEmpty();
}

TEST_F(CapabilityStoreTest, EmptyDocumentIsAccepted) {
  fake.putFile(kPath, document(1, {}, {}), kD);
  auto caps = store.load();
  ASSERT_NE(caps, nullptr);
  EXPECT_TRUE(caps->formats.empty());
  EXPECT_EQ(newLines(), std::vector<std::string>{"[DEBUG] Loaded capabilities: 0 formats, 0 sources"});
}

TEST_F(CapabilityStoreTest, ReadsFromTheContainerTheFileNamesNothingElse) {
  fake.container = "/Users/a/Group Containers/group.x/";
  fake.directories.insert("/Users/a/Group Containers/group.x");
  fake.putFile("/container/capabilities.json", kDocB, kD);
  fake.putFile("/Users/a/Group Containers/group.x/capabilities.json", kDocA, kD);
  EXPECT_EQ(formatIds(store.load()), kIdsA);
}

}  // namespace
}  // namespace palvin

// The same cache on real files: the key is the file system's modification
// time at full precision, and odd files fail without blocking.
namespace palvin {
namespace {

TEST(CapabilityStoreOnLinux, CachesByTheRealModificationTimeToTheNanosecond) {
  testing::TempDir dir;
  LinuxPlatform::Options options;
  options.container = dir.path();
  LinuxPlatform platform(options);
  ScopedPlatform installed(platform);
  const std::string path = dir.write("capabilities.json", document(1, {"png"}, {"png"}));
  auto setTime = [&path](std::int64_t nanoseconds) {
    timespec times[2] = {{1795424400, nanoseconds}, {1795424400, nanoseconds}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  };
  setTime(100);
  CapabilityStore store;
  auto first = store.load();
  ASSERT_TRUE(first);
  EXPECT_EQ(store.load(), first);  // untouched: the held document itself

  // New content under the same time stays unseen; one nanosecond later it is read.
  dir.write("capabilities.json", document(1, {"png", "jpeg"}, {"png"}));
  setTime(100);
  EXPECT_EQ(store.load(), first);
  setTime(101);
  auto second = store.load();
  ASSERT_TRUE(second);
  EXPECT_EQ(second->formats.size(), 2u);

  // A FIFO in its place is refused at once and the held document stays.
  ASSERT_EQ(unlink(path.c_str()), 0);
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  EXPECT_FALSE(store.load());
  EXPECT_EQ(store.cached(), second);
  FinderLog::flush();
  std::string log = testing::readWholeFile(dir.file("finder-extension.log"));
  EXPECT_NE(log.find("[ERROR] Failed to decode capabilities: " + path + ": is a FIFO"), std::string::npos) << log;
}

}  // namespace
}  // namespace palvin
