#include "catalogue/capabilities.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <utility>
#include <vector>

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
      {with("convertMenuTitle", R"("")"), "", base([](auto& c) { c.convertMenuTitle = ""; })},
      // Nothing else is validated: keys are kept as written, dangling and repeated identifiers pass.
      // clang-format off
      {with("extensionToFormatId", R"({"JPG": "x", ".png": "x", "": "x", " t ": "x"})"), "",
       base([](auto& c) { c.extensionToFormatId = {{"JPG", "x"}, {".png", "x"}, {"", "x"}, {" t ", "x"}}; })},
      {with("formats", "[" + f + ", " + f + "]"), "",
       base([](auto& c) { c.formats.assign(2, {"a", "", "z", ""}); })},
      // clang-format on
      {with("generatedAt", R"("nul\u0000 \ud83d\ude00 \/")"), "",
       base([](auto& c) { c.generatedAt = std::string("nul\0 \U0001F600 /", 11); })},
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
      // A syntax error anywhere wins over every field error.
      {with("schemaVersion", R"("1")") + " x",
       "invalid JSON: expected end of input after the top-level value, found 'x' at line 8, column 3"},
  };
  for (const auto& member : kDoc) cases.push_back(bad(member.first, "", ": missing"));
  expectDecoding(cases);

  // Every member wrong, in reverse order; fixing them one by one moves the error along the fields, and
  // at the end empty strings, arrays and maps decode.
  // clang-format off
  const std::vector<std::array<std::string, 3>> fields = {
      {"schemaVersion", "integer", "0"}, {"generatedAt", "string", R"("")"}, {"categories", "array", "[]"},
      {"formats", "array", "[ ]"}, {"extensionToFormatId", "object", "{}"},
      {"conversions", "object", R"({"a": []})"}, {"convertMenuTitle", "string or null", "null"}};
  // clang-format on
  Members members;
  for (const auto& field : fields) members.insert(members.begin(), {field[0], "true"});
  for (std::size_t i = 0; i < fields.size(); ++i) {
    EXPECT_EQ(errorOf(text(members)), fields[i][0] + ": expected " + fields[i][1] + ", found boolean");
    members[fields.size() - 1 - i].second = fields[i][2];
  }
  expectDecoding({{text(members), "", FinderCapabilities{0, "", {}, {}, {}, {{"a", {}}}, {}}}});
}

// JSON syntax errors say what kind of error and where, in 1-based lines and byte columns. Texts that a
// scanner too lenient would let through are the JSON suite's n_ cases.
TEST(CapabilitiesDecode, SyntaxErrorsSayWhatAndWhere) {
  const std::string name = "expected a member name in double quotes, found ";
  std::vector<Case> cases = {
      {"", "empty document"},
      {"{\n\"a\": \"2026", "unclosed string at line 2, column 6"},
      {R"({"a": [)", "expected a value, found end of input at line 1, column 8"},
      {R"({"a": [1 2]})", "expected ',' or ']', found '2' at line 1, column 10"},
      {"{\r\n  x", name + "'x' at line 2, column 3"},
      {"\xEF\xBB\xBF{x}", name + "'x' at line 1, column 5"},  // a byte order mark is skipped but counted
      {R"({'a': 1})", name + "\"'\" at line 1, column 2"},
      {R"({"a": Nullabcdefghijklm})", "invalid literal 'Nullabcdefghijkl...' at line 1, column 7"},
      {R"({"a": "x\qy"})", "invalid escape sequence '\\q' at line 1, column 9"},
      {R"({"a": "\ud800\u0041"})", "unpaired surrogate in \\u escape at line 1, column 8"},
      {"{\"a\": \"x\ty\"}", "unescaped control character U+0009 in string at line 1, column 9"},
      {"{\"a\": \"x\xED\xA0\x80y\"}", "invalid UTF-8 in string at line 1, column 9"},
      {"{\"a\": \xF0\x9F\x98\x80}", "expected a value, found U+1F600 at line 1, column 7"},
      {"{\"a\": \xFF}", "expected a value, found invalid UTF-8 byte 0xFF at line 1, column 7"},
      // Only overflow is out of range; underflow reads as zero.
      {R"({"a": 1e-400, "b": 0.001e310, "c": x})", "invalid literal 'x' at line 1, column 36"},
      // Deep nesting fails cleanly, just past the limit and far past it.
      {R"({"a":)" + std::string(100000, '['), "nesting deeper than 1024 levels at line 1, column 1029"},
  };
  for (std::string number : {"01", "1.", "0x1F", "-Infinity"})
    cases.push_back({R"({"a": )" + number + "}", "invalid number at line 1, column 7"});
  for (std::string number : {"100000000000000000000", "-9223372036854775809", "1e309"})
    cases.push_back({R"({"a": )" + number + "}", "number out of range at line 1, column 7"});
  for (Case& c : cases) c.error = "invalid JSON: " + c.error;
  cases.push_back(
      {R"({"a":)" + std::string(1023, '[') + std::string(1023, ']') + "}", "schemaVersion: missing"});
  expectDecoding(cases);
}

TEST(CapabilitiesEncode, FieldOrderSortedKeysLayoutAndRoundTrip) {
  // clang-format off
  const FinderCapabilities c{1, "now", {{"image", "Images", "photo"}, {"audio", "Audio", "waveform"}},
      {{"png", "PNG", "image", "png"}}, {{"png", "png"}, {"JPG", "jpeg"}, {"\u00e9", "e"}},
      {{"png", {"jpeg", "webp"}}, {"jpeg", {}}}, "a/b"};
  // clang-format on
  EXPECT_EQ(c.encode(false),
            R"({"schemaVersion":1,"generatedAt":"now","categories":[{"id":"image","label":"Images",)"
            R"("icon":"photo"},{"id":"audio","label":"Audio","icon":"waveform"}],"formats":[{"id":"png",)"
            R"("displayName":"PNG","category":"image","primaryExtension":"png"}],"extensionToFormatId":)"
            "{\"JPG\":\"jpeg\",\"png\":\"png\",\"\u00e9\":\"e\"},"
            R"("conversions":{"jpeg":[],"png":["jpeg","webp"]},"convertMenuTitle":"a/b"})");
  // Pretty: one member, element or entry per line, two spaces per level; empty ones stay on their line.
  const FinderCapabilities sparse{0, "", {{"a", "b", "c"}}, {}, {}, {{"png", {"jpeg", "webp"}}}, {}};
  EXPECT_EQ(sparse.encode(true),
            "{\n  \"schemaVersion\": 0,\n  \"generatedAt\": \"\",\n  \"categories\": [\n    {\"id\": \"a\", "
            "\"label\": \"b\", \"icon\": \"c\"}\n  ],\n  \"formats\": [],\n  \"extensionToFormatId\": {},\n  "
            "\"conversions\": {\n    \"png\": [\"jpeg\", \"webp\"]\n  }\n}\n");

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

}  // namespace
}  // namespace palvin
