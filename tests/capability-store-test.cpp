#include <gtest/gtest.h>
#include <palvin/identifiers.h>

#include "catalogue/capability_store.h"
#include "support/log_lines.h"

namespace palvin {
namespace {

using testing::FakePlatform;
using Lines = std::vector<std::string>;
using Caps = std::shared_ptr<const FinderCapabilities>;

// A decodable document with `count` formats, one source fewer and two
// extensions more, so that no count can stand in for another in the log.
std::string document(std::int64_t version, int count) {
  std::string formats, extensions = R"("x1": "f0", "x2": "f0")", conversions;
  for (int i = 0; i < count; ++i) {
    const std::string id = "\"f" + std::to_string(i) + "\"";
    formats += std::string(i ? ", " : "") + R"({"id": )" + id + R"(, "displayName": )" + id +
               R"(, "category": "image", "primaryExtension": )" + id + "}";
    extensions += ", " + id + ": " + id;
    if (i > 0) conversions += std::string(i > 1 ? ", " : "") + id + R"(: ["f0"])";
  }
  return R"({"generatedAt": "2026-11-23T09:00:00Z", "categories": [{"id": "image", "label": "Images", )"
         R"("icon": "photo"}], "schemaVersion": )" +
         std::to_string(version) + ", \"formats\": [" + formats + "], \"extensionToFormatId\": {" +
         extensions + "}, \"conversions\": {" + conversions + "}}";
}

// The number of formats held, or -1 for no document.
const auto formats = [](const Caps& caps) { return caps ? static_cast<int>(caps->formats.size()) : -1; };

const std::string kPath = "/container/capabilities.json";
const std::string kDocA = document(1, 3);
const std::string kDocB = document(1, 0);
const std::string kInvalid = R"({"schemaVersion": 1, "generatedAt": )";
const FileTime kD{1795424400, 123456789}, kDPlus1ns{1795424400, 123456790};
const FileTime kE{1795424500, 0}, kEarlier{1795424300, 0};
const std::string kLoadedA = "[DEBUG] Loaded capabilities: 3 formats, 2 sources";
const std::string kLoadedB = "[DEBUG] Loaded capabilities: 0 formats, 0 sources";
const std::string kDecodeFailed = "[ERROR] Failed to decode capabilities: ";
const std::string kSchema = "[WARN] Ignoring capabilities: schema ";

enum class Yields { nothing, held, fresh };
struct Row {
  const char* name;
  std::function<void(FakePlatform&)> event;  // what happens before two calls
  Yields yields;                             // by both calls
  int reads;                                 // by both calls together
  std::string line;                          // by each call that is not a cache hit
  std::optional<FileTime> heldAfter;         // kD: whatever was held is kept
};

std::function<void(FakePlatform&)> put(std::string content, FileTime at, std::optional<std::string> fail = {},
                                       std::optional<FileTime> linkTarget = {}) {
  return [=](FakePlatform& f) { f.putFile(kPath, content, at, linkTarget), f.failReads = fail; };
}

// Every event, from an empty store (the first rows) and from one holding kDocA at kD (all rows).
std::vector<Row> rows(bool fromLoaded) {
  const std::string noContainer =
      "[ERROR] App Group container unavailable: " + std::string(ids::kAppGroupIdentifier);
  const std::string undecodable = kDecodeFailed + FinderCapabilities::decode(kInvalid).error();
  std::vector<Row> all = {
      {"no container", [](FakePlatform& f) { f.container.reset(); }, Yields::nothing, 0, noContainer, kD},
      {"file missing", [](FakePlatform& f) { f.removeFile(kPath); }, Yields::nothing, 0, "", {}},
      {"unreadable", put(kDocB, kE, "No access"), Yields::nothing, 2, kDecodeFailed + "No access", kD},
      {"undecodable", put(kInvalid, kE), Yields::nothing, 2, undecodable, kD},
      {"version 0", put(document(0, 1), kE), Yields::nothing, 2, kSchema + "0 != expected 1", {}},
      {"version 2", put(document(2, 1), kE), Yields::nothing, 2, kSchema + "2 != expected 1", {}},
      {"version 1 at a new date", put(kDocB, kE), Yields::fresh, 1, kLoadedB, kE},
      // Only from the loaded store: the date alone is the cache key.
      {"unchanged", [](FakePlatform&) {}, Yields::held, 0, "", kD},
      {"new content at the held date", put(kDocB, kD), Yields::held, 0, "", kD},
      {"one nanosecond later", put(kDocB, kDPlus1ns), Yields::fresh, 1, kLoadedB, kDPlus1ns},
      {"an older date", put(kDocB, kEarlier), Yields::fresh, 1, kLoadedB, kEarlier},
      // A link's own date and its target's are both the key.
      {"a link whose target changed", put(kDocA, kD, {}, kE), Yields::fresh, 1, kLoadedA, kD},
  };
  if (!fromLoaded) all.resize(7);
  return all;
}

TEST(CapabilityStore, EveryEventFromEmptyAndFromLoaded) {
  for (bool fromLoaded : {false, true}) {
    for (const Row& row : rows(fromLoaded)) {
      SCOPED_TRACE(std::string(row.name) + (fromLoaded ? ", from loaded" : ", from empty"));
      FakePlatform fake;
      fake.enabledTypes.insert(UnifiedLogType::debug);
      ScopedPlatform scope(fake);
      CapabilityStore store;
      fake.putFile(kPath, kDocA, kD);
      Caps held = fromLoaded ? store.load() : nullptr;
      row.event(fake);
      Caps first = store.load();
      EXPECT_EQ(store.load(), first);  // failures are reported again, a success is then a cache hit
      EXPECT_EQ(fake.fileReads(), row.reads + fromLoaded);
      EXPECT_EQ(first, (std::array<Caps, 3>{nullptr, held, store.cached()}[static_cast<int>(row.yields)]));

      std::optional<FileTime> date = row.heldAfter == kD && !fromLoaded ? std::nullopt : row.heldAfter;
      const auto& key = store.cachedModificationDate();
      EXPECT_EQ(key ? std::optional(key->modified) : std::nullopt, date);
      EXPECT_EQ(formats(store.cached()), !date ? -1 : date == kD ? 3 : 0);

      // Every message reaches the unified log, and the log file where there is a container.
      Lines lines(fromLoaded, kLoadedA), messages, expectedMessages;
      if (!row.line.empty()) lines.resize(lines.size() + (row.yields == Yields::nothing ? 2 : 1), row.line);
      for (const auto& entry : fake.unifiedEntries()) messages.push_back(entry.message);
      for (const auto& line : lines) expectedMessages.push_back(line.substr(line.find("] ") + 2));
      EXPECT_EQ(messages, expectedMessages);
      if (!fake.container) lines.resize(fromLoaded);
      EXPECT_EQ(testing::logLines(fake), lines);
    }
  }
}

}  // namespace
}  // namespace palvin
