#include "catalogue/capabilities.h"

#include <gtest/gtest.h>
#include <palvin/identifiers.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "catalogue/capabilities_check.h"
#include "catalogue/capability_store.h"
#include "platform/linux_text.h"
#include "support/host_locale.h"
#include "support/log_lines.h"
#include "support/temp_dir.h"

namespace palvin {
namespace {

constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
using Members = std::vector<std::pair<std::string, std::string>>;

// A valid document, one member per line, and its record.
const Members kDoc = {
    {"schemaVersion", "1"},
    {"generatedAt", R"("now")"},
    {"categories", R"([{"id": "i", "label": "I", "icon": "p"}])"},
    {"formats", R"([{"id": "png", "displayName": "P", "category": "i", "primaryExtension": "x"}])"},
    {"extensionToFormatId", R"({"png": "png"})"},
    {"conversions", R"({"png": ["jpg"]})"}};
FinderCapabilities base(const std::function<void(FinderCapabilities&)>& change = {}) {
  FinderCapabilities c{
      1, "now", {{"i", "I", "p"}}, {{"png", "P", "i", "x"}}, {{"png", "png"}}, {{"png", {"jpg"}}}, {}};
  if (change) change(c);
  return c;
}

std::string text(const Members& members) {
  std::string out = "{";
  for (const auto& [name, raw] : members) out += "\n  \"" + name + "\": " + raw + ",";
  out.back() = '\n';
  return out + "}";
}

// kDoc with the value of member `name` replaced, or the member added after the others when kDoc has
// none; an empty `raw` removes the member. A `raw` may carry further members after the value.
std::string with(const std::string& name, const std::string& raw) {
  Members members = kDoc;
  auto it = std::find_if(members.begin(), members.end(), [&](const auto& m) { return m.first == name; });
  if (it != members.end()) it = members.erase(it);
  if (!raw.empty()) members.insert(it, {name, raw});
  return text(members);
}

std::string errorOf(std::string_view text) {
  auto result = FinderCapabilities::decode(text);
  return result ? std::string("(decoded)") : result.error();
}

// A document and what decoding it gives: the failure's description, or when that is empty the record.
struct Case {
  std::string text;
  std::string error;
  FinderCapabilities record = base();
};

// kDoc with member `name` set to `raw`, and its failure, whose description starts with that name.
Case bad(const std::string& name, const std::string& raw, const std::string& rest) {
  return {with(name, raw), name + rest};
}

void expectDecoding(const std::vector<Case>& cases) {
  for (const Case& c : cases) {
    auto result = FinderCapabilities::decode(c.text);
    if (c.error.empty()) {
      EXPECT_TRUE(result && *result == c.record) << c.text << "\n"
                                                 << (result ? result->encode(true) : result.error());
    } else {
      EXPECT_EQ(errorOf(c.text), c.error) << c.text.substr(0, 300);
    }
  }
}

TEST(CapabilitiesDecode, AcceptedDocuments) {
  const std::string f = R"({"id": "a", "displayName": "", "category": "z", "primaryExtension": ""})";
  std::vector<Case> cases = {
      {text(kDoc), ""},
      // Members are found by their exact names in any order; others are ignored.
      {with("categories", R"([{"Label": 3, "icon": "p", "label": "I", "Id": 1, "id": "i"}], "x": {})"), ""},
      // Nothing else is validated: keys are kept as written, dangling and repeated identifiers pass.
      // clang-format off
      {with("extensionToFormatId", R"({"JPG": "x", ".png": "x", "": "x", " t ": "x"})"), "",
       base([](auto& c) { c.extensionToFormatId = {{"JPG", "x"}, {".png", "x"}, {"", "x"}, {" t ", "x"}}; })},
      {with("formats", "[" + f + ", " + f + "]"), "",
       base([](auto& c) { c.formats.assign(2, {"a", "", "z", ""}); })},
      // clang-format on
      {with("generatedAt", R"("nul\u0000 \ud83d\ude00 \/")"), "",
       base([](auto& c) { c.generatedAt = std::string("nul\0 \U0001F600 /", 11); })},
      // Empty strings, arrays and maps decode, and a null title is no title.
      {R"({"conversions": {"a": []}, "extensionToFormatId": {}, "formats": [ ], "categories": [],)"
       R"( "generatedAt": "", "schemaVersion": 0, "convertMenuTitle": null})",
       "", FinderCapabilities{0, "", {}, {}, {}, {{"a", {}}}, {}}},
      // A repeated name: the last occurrence wins and earlier ones are not even checked.
      {with("schemaVersion", R"([], "schemaVersion": 2)"), "", base([](auto& c) { c.schemaVersion = 2; })},
  };
  // Whole numbers however written; the value itself is not examined.
  // clang-format off
  const std::vector<std::pair<std::string, std::int64_t>> versions = {
      {"1e0", 1}, {"-9223372036854775808", kMin}, {"-9.223372036854775808e18", kMin},
      {"9.2233720368547748e18", 9223372036854774784}};
  // clang-format on
  for (const auto& v : versions)
    cases.push_back({with("schemaVersion", v.first), "", base([&](auto& c) { c.schemaVersion = v.second; })});
  // Many repeats of a key that fails until its last occurrence: the last wins, in linear time.
  std::string repeated = "{";
  for (int i = 0; i < 200000; ++i) repeated += R"("png": 1,)";
  cases.push_back({with("extensionToFormatId", repeated + R"("png": "png"})"), ""});
  expectDecoding(cases);
}

// What the log shows for well-formed JSON that is no capabilities document: one exact description of
// each kind of failure, with the path of where decoding stopped. With several faults, the one met first
// in field order is reported, whatever the order in the text.
TEST(CapabilitiesDecode, FieldErrorsNameThePathAndTheProblem) {
  const std::string range = " is out of range for a signed 64-bit integer";
  std::vector<Case> cases = {
      {"[]", "(root): expected object, found array"},
      bad("schemaVersion", "1.5", ": expected integer, found number 1.5"),
      bad("schemaVersion", "9223372036854775808", ": 9223372036854775808" + range),
      bad("schemaVersion", "9.223372036854775808e18", ": 9223372036854775808" + range),
      bad("schemaVersion", "-1e300", ": -1e+300" + range),
      bad("categories", R"([{"id": "", "label": "", "icon": ""}, 1])", "[1]: expected object, found number"),
      bad("categories", R"([{"ID": "a", "label": "A", "icon": "x"}])", "[0].id: missing"),
      bad("extensionToFormatId", R"({"png": "png", "a\"b\\c\n\u0001/\u00e9": null})",
          "[\"a\\\"b\\\\c\\n\\u0001/\u00e9\"]: expected string, found null"),
      bad("conversions", R"({"png": ["a", "b", null]})", R"(["png"][2]: expected string, found null)"),
      // Only the last of repeated names counts, also when it is the bad one.
      bad("conversions", R"({"png": ["a"], "png": [null]})", R"(["png"][0]: expected string, found null)"),
      // Field order within an element, array order, then document order within a map.
      bad("categories", R"([{"icon": 1, "label": 2, "id": 3}])", "[0].id: expected string, found number"),
      bad("categories", R"([{"icon": 1, "id": "x"}])", "[0].label: missing"),
      bad("categories", R"([{"id": "a", "label": "A"}, {"label": "B"}])", "[0].icon: missing"),
      bad("formats", R"([{"primaryExtension": 1, "category": 2, "id": "x"}])", "[0].displayName: missing"),
      bad("formats", R"([{"id": "x", "displayName": "X", "category": "c"}])",
          "[0].primaryExtension: missing"),
      bad("extensionToFormatId", R"({"b": 1, "a": 2})", R"(["b"]: expected string, found number)"),
      {text({{"conversions", "true"}, {"schemaVersion", "true"}}),
       "schemaVersion: expected integer, found boolean"},
      // A syntax error anywhere wins over every field error.
      {with("schemaVersion", R"("1")") + " x",
       "invalid JSON: expected end of input after the top-level value, found 'x' at line 8, column 3"},
  };
  for (const auto& member : kDoc) cases.push_back(bad(member.first, "", ": missing"));
  expectDecoding(cases);
}

// JSON syntax errors say what kind of error and where, in 1-based lines and byte columns; the JSON
// suite's n_ texts are the wider net. These are the choices the suite leaves open. The host's
// locale, whose decimal point is a comma here, changes nothing.
TEST(CapabilitiesDecode, SyntaxErrorsSayWhatAndWhere) {
  const testing::HostLocale german("de_DE.UTF-8");
  ASSERT_TRUE(german.active());
  std::vector<Case> cases = {
      {"", "empty document"},
      {"\xEF\xBB\xBF{x}", "expected a member name in double quotes, found 'x' at line 1, column 5"},  // BOM
      {R"({"a": "\ud800\u0041"})", "unpaired surrogate in \\u escape at line 1, column 8"},
      {"{\"a\": \"x\xED\xA0\x80y\"}", "invalid UTF-8 in string at line 1, column 9"},
      // Only overflow is out of range; underflow reads as zero.
      {R"({"a": 1e-400, "b": 0.001e310, "c": x})", "invalid literal 'x' at line 1, column 36"},
      // Deep nesting fails cleanly, just past the limit and far past it.
      {R"({"a":)" + std::string(100000, '['), "nesting deeper than 1024 levels at line 1, column 1029"},
  };
  for (std::string number : {"100000000000000000000", "-9223372036854775809", "1e309", "1.5e309"})
    cases.push_back({R"({"a": )" + number + "}", "number out of range at line 1, column 7"});
  for (Case& c : cases) c.error = "invalid JSON: " + c.error;
  cases.push_back(
      {R"({"a":)" + std::string(1023, '[') + std::string(1023, ']') + "}", "schemaVersion: missing"});
  expectDecoding(cases);
}

// The exact compact bytes are pinned by the host catalogue's test.
TEST(CapabilitiesEncode, RoundTripWhateverTheStringsHold) {
  // Whatever the strings hold, in every field and key, decoding gives back what was encoded.
  std::string controls;
  for (char ch = 0; ch < 0x20; ++ch) controls += ch;
  const FinderCapabilities odd{kMin,
                               controls + "\x7F",
                               {{"\u2028", "\"q\" \\ b\\s", "a/b"}},
                               {{"\t", "\"", "\\", "</script>"}},
                               {{"\"\\\n", "\U0010FFFF"}},
                               {{"\\", {"", "a\"b"}}},
                               "caf\u00e9 \U0001F600"};
  std::vector<Case> cases;
  for (const FinderCapabilities& record : {base(), odd, FinderCapabilities{}}) {
    for (bool pretty : {false, true}) cases.push_back({record.encode(pretty), "", record});
  }
  // Bytes that are not UTF-8 are written as U+FFFD, so the output stays valid JSON.
  cases.push_back({base([](auto& c) { c.generatedAt = "a\xFF"; }).encode(), "",
                   base([](auto& c) { c.generatedAt = "a\xEF\xBF\xBD"; })});
  expectDecoding(cases);
}

// The parsing cases of JSONTestSuite run through the decoder: the syntax stage must accept every y_
// text and reject every n_ text as a syntax error; i_ texts may go either way.
TEST(JsonTestSuite, SyntaxStageAgreesWithTheSuite) {
  const std::filesystem::path dir = PALVIN_TESTDATA_DIR "/json-test-suite/test_parsing";
  if (!std::filesystem::is_directory(dir)) GTEST_SKIP() << "JSON test suite not found at " << dir;
  int files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    const std::string name = entry.path().filename().string();
    const std::string text = testing::readText(entry.path());
    const std::string error = errorOf(text);
    const bool syntax = error.rfind("invalid JSON: ", 0) == 0;
    ++files;
    // Every syntax error says where it is, unless the text holds nothing at all.
    EXPECT_TRUE(!syntax || error.find(" at line ") != std::string::npos ||
                error == "invalid JSON: empty document")
        << name << ": " << error;
    EXPECT_TRUE(name[0] != 'n' || syntax) << name << ": " << error;
    if (name[0] != 'y') continue;
    EXPECT_FALSE(syntax) << name << ": " << error;
    // Junk after a valid text is the first error, so its place is known exactly; a locator stricter
    // than the parser would report something earlier instead.
    EXPECT_EQ(errorOf(text + "\n@"),
              "invalid JSON: expected end of input after the top-level value, found '@' at line " +
                  std::to_string(std::count(text.begin(), text.end(), '\n') + 2) + ", column 1")
        << name;
  }
  EXPECT_GT(files, 300);
}

// The smallest usable document, with `more` members before its closing brace.
std::string minimal(const std::string& more = "") {
  return R"({"schemaVersion": 1, "generatedAt": "", "categories": [], "formats": [], )"
         R"("extensionToFormatId": {}, "conversions": {})" +
         more + "}";
}

std::string repeated(const std::string& name) {
  return "member \"" + name + "\" is repeated in this object; the last one wins and the others are ignored";
}

TEST(CapabilitiesCheck, FindingsInOrder) {
  const std::string up = "key has upper case and never matches; selected files' extensions are lower-cased";
  const std::string dot = "key starts with \".\" and never matches; keys are extensions without the dot";
  struct Case {
    std::string document;
    std::vector<std::string> findings;  // "E" or "W", path | message; usable without an "E"
  };
  const std::vector<Case> cases = {
      {minimal(), {}},
      // Decoding failures are the one finding, with the path split off the description.
      {minimal(R"(, "extensionToFormatId": {"a: b": 5})"),
       {R"(E extensionToFormatId["a: b"] | expected string, found number)"}},
      {"[1, 2]", {"E (root) | expected object, found array"}},
      {"", {"E (root) | invalid JSON: empty document"}},
      // Another version is an error ahead of the warnings.
      {minimal(R"(, "schemaVersion": 2)"),
       {"E schemaVersion | schema version 2 is not supported; the extension only reads version 1",
        "W schemaVersion | " + repeated("schemaVersion")}},
      // Every kind of warning, in document order; lower-casing is Unicode-aware.
      {R"({"schemaVersion": 1, "generatedAt": "a", "generatedAt": "b",
          "categories": [{"id": "img", "label": "I", "icon": "p", "icon": "q"},
                         {"id": "img", "label": "Pictures", "icon": "p"}],
          "formats": [{"id": "png", "displayName": "P", "category": "img", "primaryExtension": "png"},
                      {"id": "jpeg", "displayName": "J", "category": "img", "primaryExtension": "jpg",
                       "primaryExtension": "jpeg"},
                      {"id": "png", "displayName": "P2", "category": "img", "primaryExtension": "png"},
                      {"id": "ogg", "displayName": "O", "category": "sound", "primaryExtension": "ogg"}],
          "extensionToFormatId": {"png": "png", "png": "png", "JPG": "jpeg", "Über": "jpeg", ".JPG": "jpeg",
                                  ".jpeg": "jpeg", "tga": "tga", "über": "jpeg", "tar.gz": "jpeg"},
          "conversions": {"png": ["jpeg", "png", "tiff", "jpeg"], "tga": ["png"]},
          "extra": {"a": 1, "a": 2, "list": [{"b": 1, "b": 2, "b": 3}]}, "x-y": {"k": true, "k": false}})",
       {"W generatedAt | " + repeated("generatedAt"),
        "W categories[0].icon | " + repeated("icon"),
        R"(W categories[1].id | duplicate category id "img" (first at categories[0]); the first entry wins)",
        "W formats[1].primaryExtension | " + repeated("primaryExtension"),
        R"(W formats[2].id | duplicate format id "png" (first at formats[0]); the first entry wins)",
        R"(W formats[3].category | category "sound" is not listed in categories; its formats are offered )"
        "only inline, to selections of that same category",
        R"(W extensionToFormatId["png"] | )" + repeated("png"),
        R"(W extensionToFormatId["JPG"] | )" + up,
        R"(W extensionToFormatId["Über"] | )" + up,
        R"(W extensionToFormatId[".JPG"] | )" + up,
        R"(W extensionToFormatId[".JPG"] | )" + dot,
        R"(W extensionToFormatId[".jpeg"] | )" + dot,
        R"(W extensionToFormatId["tga"] | format "tga" is not listed in formats)",
        R"(W conversions["png"][1] | "png" converts to itself; the menu never offers a file its own format)",
        R"(W conversions["png"][2] | target format "tiff" is not listed in formats; the menu drops it)",
        R"(W conversions["png"][3] | target "jpeg" is listed again (first at conversions["png"][0]); )"
        "it counts once",
        R"(W conversions["tga"] | source format "tga" is not listed in formats)",
        "W extra.a | " + repeated("a"),
        "W extra.list[0].b | " + repeated("b"),
        "W extra.list[0].b | " + repeated("b"),
        R"(W ["x-y"].k | )" + repeated("k")}},
  };
  for (const Case& c : cases) {
    const CapabilityCheckReport report = checkCapabilities(c.document, *linux_text::currentRules());
    std::vector<std::string> findings;
    for (const auto& f : report.findings)
      findings.push_back((f.severity == CapabilityFinding::Severity::error ? "E " : "W ") + f.path + " | " +
                         f.message);
    EXPECT_EQ(findings, c.findings) << c.document;
    EXPECT_EQ(report.usable, c.findings.empty() || c.findings[0][0] != 'E') << c.document;
  }
}

// The store: what a load gives and logs for each state of the container's document.
using testing::FakePlatform;
using Lines = std::vector<std::string>;
using Caps = std::shared_ptr<const FinderCapabilities>;

// The number of formats held, or -1 for no document.
const auto formats = [](const Caps& caps) { return caps ? static_cast<int>(caps->formats.size()) : -1; };

const std::string kPath = "/container/capabilities.json";
// Formats and sources differ in B, so neither count can stand in for the other
// (the sample catalogue's line, with more extensions than sources, is the controller test's).
const std::string kDocA = text(kDoc);
const std::string kDocB = with("formats", "[]");
const std::string kInvalid = R"({"schemaVersion": 1, "generatedAt": )";
const FileTime kD{1795424400, 123456789}, kDPlus1ns{1795424400, 123456790};
const FileTime kE{1795424500, 0}, kEarlier{1795424300, 0};
const std::string kLoadedA = "[DEBUG] Loaded capabilities: 1 formats, 1 sources";
const std::string kLoadedB = "[DEBUG] Loaded capabilities: 0 formats, 1 sources";
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
      {"version 0", put(with("schemaVersion", "0"), kE), Yields::nothing, 2, kSchema + "0 != expected 1", {}},
      {"version 2", put(with("schemaVersion", "2"), kE), Yields::nothing, 2, kSchema + "2 != expected 1", {}},
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
      EXPECT_EQ(formats(store.cached()), !date ? -1 : date == kD ? 1 : 0);

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
