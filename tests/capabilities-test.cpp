#include "catalogue/capabilities.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <limits>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace palvin {

// Failed comparisons show the document rather than the record's bytes.
void PrintTo(const FinderCapabilities& capabilities, std::ostream* os) {
  *os << capabilities.encode(true);
}

namespace {

using Categories = std::vector<FinderCapabilities::Category>;
using Formats = std::vector<FinderCapabilities::Format>;

// A valid document, one member per line, that cases change member by member.
struct Doc {
  std::vector<std::pair<std::string, std::string>> members{
      {"schemaVersion", "1"},
      {"generatedAt", R"("2026-11-23T09:00:00Z")"},
      {"categories", R"([{"id": "image", "label": "Images", "icon": "photo"}])"},
      {"formats", R"([{"id": "png", "displayName": "PNG", "category": "image", "primaryExtension": "png"},
                      {"id": "jpeg", "displayName": "JPEG", "category": "image", "primaryExtension": "jpg"}])"},
      {"extensionToFormatId", R"({"png": "png", "jpg": "jpeg"})"},
      {"conversions", R"({"png": ["jpeg"], "jpeg": ["png"]})"},
  };

  // Replaces a member's value, or appends the member when there is none of that name.
  Doc& set(const std::string& name, const std::string& raw) {
    for (auto& [n, v] : members) {
      if (n == name) {
        v = raw;
        return *this;
      }
    }
    members.emplace_back(name, raw);
    return *this;
  }
  Doc& add(const std::string& name, const std::string& raw) {
    members.emplace_back(name, raw);
    return *this;
  }
  Doc& remove(const std::string& name) {
    std::erase_if(members, [&](const auto& m) { return m.first == name; });
    return *this;
  }
  std::string text() const {
    std::string out = "{\n";
    for (std::size_t i = 0; i < members.size(); ++i) {
      out += "  \"" + members[i].first + "\": " + members[i].second;
      out += i + 1 < members.size() ? ",\n" : "\n";
    }
    return out + "}";
  }
};

FinderCapabilities baseRecord() {
  FinderCapabilities c;
  c.schemaVersion = 1;
  c.generatedAt = "2026-11-23T09:00:00Z";
  c.categories = {{"image", "Images", "photo"}};
  c.formats = {{"png", "PNG", "image", "png"}, {"jpeg", "JPEG", "image", "jpg"}};
  c.extensionToFormatId = {{"png", "png"}, {"jpg", "jpeg"}};
  c.conversions = {{"png", {"jpeg"}}, {"jpeg", {"png"}}};
  return c;
}

std::string errorOf(std::string_view text) {
  auto result = FinderCapabilities::decode(text);
  return result ? std::string("(decoded)") : result.error();
}

TEST(CapabilitiesDecode, BaseDocumentGivesTheRecord) {
  auto result = FinderCapabilities::decode(Doc().text());
  ASSERT_TRUE(result) << result.error();
  EXPECT_EQ(*result, baseRecord());
}

TEST(CapabilitiesDecode, ExampleDocument) {
  std::ifstream in(PALVIN_SOURCE_DIR "/examples/capabilities.json", std::ios::binary);
  ASSERT_TRUE(in) << "examples/capabilities.json not found";
  std::stringstream text;
  text << in.rdbuf();
  auto result = FinderCapabilities::decode(text.str());
  ASSERT_TRUE(result) << result.error();
  const FinderCapabilities& c = *result;
  EXPECT_EQ(c.schemaVersion, 1);
  EXPECT_EQ(c.generatedAt, "2026-11-23T09:00:00Z");
  ASSERT_EQ(c.categories.size(), 4u);
  EXPECT_EQ(c.categories[1], (FinderCapabilities::Category{"document", "Documents", "doc.text"}));
  ASSERT_EQ(c.formats.size(), 12u);
  EXPECT_EQ(c.formats[11], (FinderCapabilities::Format{"ogg", "OGG", "sound", "ogg"}));
  EXPECT_EQ(c.extensionToFormatId.size(), 9u);
  EXPECT_EQ(c.extensionToFormatId.at("jpg"), "jpeg");
  EXPECT_EQ(c.conversions.size(), 7u);
  EXPECT_EQ(c.conversions.at("png"), (std::vector<std::string>{"jpeg", "webp", "pdf", "heic", "png"}));
  EXPECT_FALSE(c.convertMenuTitle);
}

// Documents that decode, with what must differ from the base record.
TEST(CapabilitiesDecode, AcceptedVariants) {
  struct Case {
    const char* name;
    std::string text;
    FinderCapabilities expected;
  };
  auto with = [](auto change) {
    FinderCapabilities c = baseRecord();
    change(c);
    return c;
  };
  const std::int64_t min = std::numeric_limits<std::int64_t>::min();
  const std::int64_t max = std::numeric_limits<std::int64_t>::max();
  const std::vector<Case> cases = {
      {"extra top-level member", Doc().add("extra", R"({"x": [1, null]})").text(), baseRecord()},
      {"extra members in category and format",
       Doc()
           .set("categories",
                R"([{"id": "image", "colour": 3, "label": "Images", "icon": "photo", "Id": "x"}])")
           .set("formats",
                R"([{"id": "png", "displayName": "PNG", "category": "image", "primaryExtension": "png",
                               "mime": "image/png"},
                              {"id": "jpeg", "displayName": "JPEG", "category": "image",
                               "primaryExtension": "jpg", "displayname": null}])")
           .text(),
       baseRecord()},
      {"members in another order", R"({"conversions": {"png": ["jpeg"], "jpeg": ["png"]}, "formats": [
          {"primaryExtension": "png", "category": "image", "displayName": "PNG", "id": "png"},
          {"id": "jpeg", "displayName": "JPEG", "category": "image", "primaryExtension": "jpg"}],
          "extensionToFormatId": {"jpg": "jpeg", "png": "png"}, "generatedAt": "2026-11-23T09:00:00Z",
          "categories": [{"icon": "photo", "label": "Images", "id": "image"}], "schemaVersion": 1})",
       baseRecord()},
      {"convertMenuTitle null", Doc().add("convertMenuTitle", "null").text(), baseRecord()},
      {"convertMenuTitle empty", Doc().add("convertMenuTitle", R"("")").text(),
       with([](auto& c) { c.convertMenuTitle = ""; })},
      {"convertMenuTitle text", Doc().add("convertMenuTitle", R"("Convert \u2192")").text(),
       with([](auto& c) { c.convertMenuTitle = "Convert \u2192"; })},
      {"generatedAt not a date", Doc().set("generatedAt", R"("last Tuesday")").text(),
       with([](auto& c) { c.generatedAt = "last Tuesday"; })},
      {"generatedAt empty", Doc().set("generatedAt", R"("")").text(),
       with([](auto& c) { c.generatedAt = ""; })},
      {"schemaVersion 2", Doc().set("schemaVersion", "2").text(), with([](auto& c) { c.schemaVersion = 2; })},
      {"schemaVersion negative", Doc().set("schemaVersion", "-7").text(),
       with([](auto& c) { c.schemaVersion = -7; })},
      {"schemaVersion 1.0", Doc().set("schemaVersion", "1.0").text(), baseRecord()},
      {"schemaVersion 1e0", Doc().set("schemaVersion", "1e0").text(), baseRecord()},
      {"schemaVersion 0.1e1", Doc().set("schemaVersion", "0.1e1").text(), baseRecord()},
      {"schemaVersion -0.0", Doc().set("schemaVersion", "-0.0").text(),
       with([](auto& c) { c.schemaVersion = 0; })},
      {"schemaVersion int64 max", Doc().set("schemaVersion", "9223372036854775807").text(),
       with([&](auto& c) { c.schemaVersion = max; })},
      {"schemaVersion int64 min", Doc().set("schemaVersion", "-9223372036854775808").text(),
       with([&](auto& c) { c.schemaVersion = min; })},
      {"schemaVersion int64 min as double", Doc().set("schemaVersion", "-9.223372036854775808e18").text(),
       with([&](auto& c) { c.schemaVersion = min; })},
      {"schemaVersion largest double below 2^63", Doc().set("schemaVersion", "9.2233720368547748e18").text(),
       with([](auto& c) { c.schemaVersion = 9223372036854774784; })},
      {"empty arrays and objects",
       Doc()
           .set("categories", "[]")
           .set("formats", "[ ]")
           .set("extensionToFormatId", "{}")
           .set("conversions", "{ }")
           .text(),
       with([](auto& c) {
         c.categories.clear();
         c.formats.clear();
         c.extensionToFormatId.clear();
         c.conversions.clear();
       })},
      {"empty target list", Doc().set("conversions", R"({"png": []})").text(), with([](auto& c) {
         c.conversions = {{"png", {}}};
       })},
      {"map keys kept as written",
       Doc()
           .set("extensionToFormatId",
                R"({"JPG": "jpeg", ".png": "png", "": "x", " tif ": "tiff", "\u00e9": "e"})")
           .text(),
       with([](auto& c) {
         c.extensionToFormatId = {
             {"JPG", "jpeg"}, {".png", "png"}, {"", "x"}, {" tif ", "tiff"}, {"\u00e9", "e"}};
       })},
      {"dangling and duplicated identifiers are not checked",
       Doc()
           .set("formats",
                R"([{"id": "png", "displayName": "", "category": "nowhere", "primaryExtension": ""},
                                {"id": "png", "displayName": "PNG", "category": "image", "primaryExtension": "png"}])")
           .text(),
       with([](auto& c) {
         c.formats = {{"png", "", "nowhere", ""}, {"png", "PNG", "image", "png"}};
       })},
      {"escapes decoded",
       Doc().set("generatedAt", R"("tab\t quote\" slash\/ nul\u0000 pair\ud83d\ude00 bs\\")").text(),
       with([](auto& c) {
         c.generatedAt = std::string("tab\t quote\" slash/ nul\0 pair\U0001F600 bs\\", 36);
       })},
      {"UTF-8 byte order mark skipped", "\xEF\xBB\xBF" + Doc().text(), baseRecord()},
  };
  for (const Case& c : cases) {
    auto result = FinderCapabilities::decode(c.text);
    ASSERT_TRUE(result) << c.name << ": " << result.error();
    EXPECT_EQ(*result, c.expected) << c.name;
  }
}

// Repeated member names: the last occurrence wins, and earlier ones are not even checked.
TEST(CapabilitiesDecode, DuplicateNamesLastWins) {
  struct Case {
    const char* name;
    std::string text;
    std::optional<FinderCapabilities> expected;  // nothing: must fail with `error`
    std::string error;
  };
  auto with = [](auto change) {
    FinderCapabilities c = baseRecord();
    change(c);
    return c;
  };
  const std::vector<Case> cases = {
      {"top-level member", Doc().add("schemaVersion", "2").text(), with([](auto& c) { c.schemaVersion = 2; }),
       ""},
      {"bad first occurrence ignored",
       Doc().set("schemaVersion", R"("one")").add("schemaVersion", "1").text(), baseRecord(), ""},
      {"bad last occurrence fails", Doc().add("schemaVersion", R"("one")").text(), std::nullopt,
       "schemaVersion: expected integer, found string"},
      {"title then null", Doc().add("convertMenuTitle", R"("Go")").add("convertMenuTitle", "null").text(),
       baseRecord(), ""},
      {"category field",
       Doc()
           .set("categories", R"([{"id": "image", "label": 5, "icon": "photo", "label": "Pictures"}])")
           .text(),
       with([](auto& c) { c.categories[0].label = "Pictures"; }), ""},
      {"map key",
       Doc().set("extensionToFormatId", R"({"png": "png", "jpg": 1, "jpg": "jpeg", "png": "apng"})").text(),
       with([](auto& c) {
         c.extensionToFormatId = {{"png", "apng"}, {"jpg", "jpeg"}};
       }),
       ""},
      {"map key with bad last value", Doc().set("conversions", R"({"png": ["jpeg"], "png": [null]})").text(),
       std::nullopt, R"(conversions["png"][0]: expected string, found null)"},
  };
  for (const Case& c : cases) {
    auto result = FinderCapabilities::decode(c.text);
    if (c.expected) {
      ASSERT_TRUE(result) << c.name << ": " << result.error();
      EXPECT_EQ(*result, *c.expected) << c.name;
    } else {
      ASSERT_FALSE(result) << c.name;
      EXPECT_EQ(result.error(), c.error) << c.name;
    }
  }
}

// What the log shows for documents that are well-formed JSON but not a capabilities document.
TEST(CapabilitiesDecode, FieldErrorsNameThePathAndTheProblem) {
  struct Case {
    std::string text;
    std::string error;
  };
  const std::vector<Case> cases = {
      {"[]", "(root): expected object, found array"},
      {R"("capabilities")", "(root): expected object, found string"},
      {"null", "(root): expected object, found null"},
      {"{}", "schemaVersion: missing"},
      {Doc().remove("schemaVersion").text(), "schemaVersion: missing"},
      {Doc().set("schemaVersion", R"("1")").text(), "schemaVersion: expected integer, found string"},
      {Doc().set("schemaVersion", "null").text(), "schemaVersion: expected integer, found null"},
      {Doc().set("schemaVersion", "true").text(), "schemaVersion: expected integer, found boolean"},
      {Doc().set("schemaVersion", "[1]").text(), "schemaVersion: expected integer, found array"},
      {Doc().set("schemaVersion", "1.5").text(), "schemaVersion: expected integer, found number 1.5"},
      {Doc().set("schemaVersion", "-2.5e-1").text(), "schemaVersion: expected integer, found number -0.25"},
      {Doc().set("schemaVersion", "9223372036854775808").text(),
       "schemaVersion: 9223372036854775808 is out of range for a signed 64-bit integer"},
      {Doc().set("schemaVersion", "18446744073709551615").text(),
       "schemaVersion: 18446744073709551615 is out of range for a signed 64-bit integer"},
      {Doc().set("schemaVersion", "9.3e18").text(),
       "schemaVersion: 9.3e+18 is out of range for a signed 64-bit integer"},
      {Doc().set("schemaVersion", "-1e300").text(),
       "schemaVersion: -1e+300 is out of range for a signed 64-bit integer"},
      {Doc().remove("generatedAt").text(), "generatedAt: missing"},
      {Doc().set("generatedAt", "20261123").text(), "generatedAt: expected string, found number"},
      {Doc().set("generatedAt", "null").text(), "generatedAt: expected string, found null"},
      {Doc().remove("categories").text(), "categories: missing"},
      {Doc().set("categories", "{}").text(), "categories: expected array, found object"},
      {Doc().set("categories", "[[]]").text(), "categories[0]: expected object, found array"},
      {Doc().set("categories", R"([{"id": "a", "label": "A", "icon": "x"}, "b"])").text(),
       "categories[1]: expected object, found string"},
      {Doc().set("categories", R"([{"id": "a", "icon": "x"}])").text(), "categories[0].label: missing"},
      {Doc()
           .set("categories",
                R"([{"id": "a", "label": "A", "icon": "x"}, {"id": "b", "label": "B", "icon": null}])")
           .text(),
       "categories[1].icon: expected string, found null"},
      {Doc().set("categories", R"([{"ID": "a", "label": "A", "icon": "x"}])").text(),
       "categories[0].id: missing"},
      {Doc().set("formats", "null").text(), "formats: expected array, found null"},
      {Doc()
           .set("formats", R"([{"id": "a", "displayName": "A", "category": "c", "primaryExtension": "a"},
                                {"id": "b", "displayName": "B", "category": "c", "primaryExtension": "b"},
                                {"id": "c", "displayName": "C", "category": "c", "primaryExtension": "c"},
                                {"id": "d", "displayName": "D", "category": "c"}])")
           .text(),
       "formats[3].primaryExtension: missing"},
      {Doc()
           .set("formats", R"([{"id": "a", "displayName": false, "category": "c", "primaryExtension": "a"}])")
           .text(),
       "formats[0].displayName: expected string, found boolean"},
      {Doc().remove("extensionToFormatId").text(), "extensionToFormatId: missing"},
      {Doc().set("extensionToFormatId", "[]").text(), "extensionToFormatId: expected object, found array"},
      {Doc().set("extensionToFormatId", R"({"png": "png", "JPG": 1})").text(),
       R"(extensionToFormatId["JPG"]: expected string, found number)"},
      {Doc().set("extensionToFormatId", R"({"a\"b\\c\n\u0001/\u00e9": null})").text(),
       R"(extensionToFormatId["a\"b\\c\n\u0001/)"
       "\u00e9"
       R"("]: expected string, found null)"},
      {Doc().set("extensionToFormatId", R"({"": {}})").text(),
       R"(extensionToFormatId[""]: expected string, found object)"},
      {Doc().remove("conversions").text(), "conversions: missing"},
      {Doc().set("conversions", R"("png")").text(), "conversions: expected object, found string"},
      {Doc().set("conversions", R"({"png": "jpeg"})").text(),
       R"(conversions["png"]: expected array, found string)"},
      {Doc().set("conversions", R"({"png": ["jpeg", "webp", null]})").text(),
       R"(conversions["png"][2]: expected string, found null)"},
      {Doc().add("convertMenuTitle", "5").text(), "convertMenuTitle: expected string or null, found number"},
      {Doc().add("convertMenuTitle", "[]").text(), "convertMenuTitle: expected string or null, found array"},
      {Doc().add("convertMenuTitle", "false").text(),
       "convertMenuTitle: expected string or null, found boolean"},
  };
  for (const Case& c : cases) EXPECT_EQ(errorOf(c.text), c.error) << c.text;
}

// With two faults, the one met first in decoding order is reported, whatever the order in the text.
TEST(CapabilitiesDecode, FirstFailureInDecodingOrderIsReported) {
  struct Case {
    std::string text;
    std::string error;
  };
  const std::vector<Case> cases = {
      {Doc().set("schemaVersion", R"("1")").set("generatedAt", "1").text(),
       "schemaVersion: expected integer, found string"},
      // Text order reversed: conversions comes first in the text but last in decoding.
      {R"({"conversions": 1, "extensionToFormatId": 1, "formats": 1, "categories": 1, "generatedAt": 1})",
       "schemaVersion: missing"},
      {R"({"conversions": 1, "extensionToFormatId": 1, "formats": 1, "categories": 1, "generatedAt": 1,
           "schemaVersion": 1})",
       "generatedAt: expected string, found number"},
      {Doc().remove("generatedAt").set("categories", "7").text(), "generatedAt: missing"},
      {Doc()
           .set("categories", R"([{"id": "a", "label": "A", "icon": "x"}, {"id": "b"}])")
           .set("formats", "[1]")
           .text(),
       "categories[1].label: missing"},
      {Doc().set("categories", R"([{"id": "a", "label": "A"}, {"label": "B", "icon": "y"}])").text(),
       "categories[0].icon: missing"},
      {Doc().set("categories", R"([{"icon": 1, "label": 2, "id": 3}])").text(),
       "categories[0].id: expected string, found number"},
      {Doc().set("formats", R"([{"primaryExtension": 1, "category": 2, "displayName": 3}])").text(),
       "formats[0].id: missing"},
      {Doc().set("extensionToFormatId", R"({"b": 1, "a": 2})").add("convertMenuTitle", "1").text(),
       R"(extensionToFormatId["b"]: expected string, found number)"},
      {Doc().set("conversions", R"({"png": ["a", 1], "jpeg": [2]})").text(),
       R"(conversions["png"][1]: expected string, found number)"},
      {Doc().set("conversions", "[]").add("convertMenuTitle", "1").text(),
       "conversions: expected object, found array"},
      // A syntax error anywhere wins over every field error.
      {Doc().set("schemaVersion", R"("1")").text() + " x",
       "invalid JSON: expected end of input after the top-level value, found 'x' at line 9, column 3"},
  };
  for (const Case& c : cases) EXPECT_EQ(errorOf(c.text), c.error) << c.text;
}

// JSON syntax errors say what kind of error and where, in 1-based lines and byte columns.
TEST(CapabilitiesDecode, SyntaxErrorsSayWhatAndWhere) {
  struct Case {
    std::string text;
    std::string error;
  };
  std::string deep = R"({"a":)" + std::string(100000, '[');
  std::string deepestAllowed = R"({"a":)" + std::string(1023, '[') + std::string(1023, ']') + "}";
  const std::vector<Case> cases = {
      {"", "invalid JSON: empty document"},
      {" \n\t\r\n ", "invalid JSON: empty document"},
      {"\xEF\xBB\xBF", "invalid JSON: empty document"},
      {R"({"schemaVersion": 1, "generatedAt": "2026)", "invalid JSON: unclosed string at line 1, column 37"},
      {R"({"schemaVersion": 1, "categories": [)",
       "invalid JSON: expected a value, found end of input at line 1, column 37"},
      {R"({"schemaVersion": 1)",
       "invalid JSON: expected ',' or '}', found end of input at line 1, column 20"},
      {R"({"a": [1, 2,]})", "invalid JSON: expected a value, found ']' at line 1, column 13"},
      {R"({"a": [1 2]})", "invalid JSON: expected ',' or ']', found '2' at line 1, column 10"},
      {"{\n  \"schemaVersion\": 1,\n  \"generatedAt\": \"x\"\n  \"categories\": []\n}",
       "invalid JSON: expected ',' or '}', found '\"' at line 4, column 3"},
      {"{\r\n  x", "invalid JSON: expected a member name in double quotes, found 'x' at line 2, column 3"},
      {R"({'a': 1})",
       "invalid JSON: expected a member name in double quotes, found \"'\" at line 1, column 2"},
      {R"({"a": 1,})",
       "invalid JSON: expected a member name in double quotes, found '}' at line 1, column 9"},
      {R"({"a" 1})", "invalid JSON: expected ':' after the member name, found '1' at line 1, column 6"},
      {R"({"a": tru})", "invalid JSON: invalid literal 'tru' at line 1, column 7"},
      {R"({"a": True})", "invalid JSON: invalid literal 'True' at line 1, column 7"},
      {R"({"a": 01})", "invalid JSON: invalid number at line 1, column 7"},
      {R"({"a": -})", "invalid JSON: invalid number at line 1, column 7"},
      {R"({"a": 1.})", "invalid JSON: invalid number at line 1, column 7"},
      {R"({"a": 0x1F})", "invalid JSON: invalid number at line 1, column 7"},
      {R"({"a": .5})", "invalid JSON: expected a value, found '.' at line 1, column 7"},
      {R"({"n": 100000000000000000000})", "invalid JSON: number out of range at line 1, column 7"},
      {R"({"n": -1e400})", "invalid JSON: number out of range at line 1, column 7"},
      {R"({"a": "x\qy"})", "invalid JSON: invalid escape sequence '\\q' at line 1, column 9"},
      {R"({"a": "\u12G4"})", "invalid JSON: invalid \\u escape at line 1, column 8"},
      {R"({"a": "\ud800"})", "invalid JSON: unpaired surrogate in \\u escape at line 1, column 8"},
      {R"({"a": "\udc00\ud800"})", "invalid JSON: unpaired surrogate in \\u escape at line 1, column 8"},
      {"{\"a\": \"x\ty\"}", "invalid JSON: unescaped control character U+0009 in string at line 1, column 9"},
      {"{\"a\": \"x\xFFy\"}", "invalid JSON: invalid UTF-8 in string at line 1, column 9"},
      {"{\"a\": \"x\xED\xA0\x80y\"}", "invalid JSON: invalid UTF-8 in string at line 1, column 9"},
      {"{\"a\": \xC3\xA9}", "invalid JSON: expected a value, found U+00E9 at line 1, column 7"},
      {std::string("{\0}", 3),
       "invalid JSON: expected a member name in double quotes, found U+0000 at line 1, column 2"},
      {R"({} x)",
       "invalid JSON: expected end of input after the top-level value, found 'x' at line 1, column 4"},
      {R"({}})",
       "invalid JSON: expected end of input after the top-level value, found '}' at line 1, column 3"},
      {"{\n\"a\": \"abc", "invalid JSON: unclosed string at line 2, column 6"},
      {"\xEF\xBB\xBF{x}",
       "invalid JSON: expected a member name in double quotes, found 'x' at line 1, column 5"},
      {deep, "invalid JSON: nesting deeper than 1024 levels at line 1, column 1029"},
      {std::string(100000, '['), "invalid JSON: nesting deeper than 1024 levels at line 1, column 1025"},
      {deepestAllowed, "schemaVersion: missing"},
  };
  for (const Case& c : cases) EXPECT_EQ(errorOf(c.text), c.error) << c.text.substr(0, 80);
}

// Every proper prefix of a document is rejected as invalid JSON, with the error placed within the
// prefix, never past its end.
TEST(CapabilitiesDecode, TruncatedDocumentsAreSyntaxErrorsWithinTheText) {
  const std::string text = Doc().add("convertMenuTitle", R"("Convert \u00e9 ok")").text();
  for (std::size_t length = 0; length < text.size(); ++length) {
    const std::string prefix = text.substr(0, length);
    const std::string error = errorOf(prefix);
    ASSERT_EQ(error.rfind("invalid JSON: ", 0), 0u) << length << ": " << error;
    if (error == "invalid JSON: empty document") continue;
    const std::size_t at = error.rfind(" at line ");
    ASSERT_NE(at, std::string::npos) << error;
    std::size_t line = 0, column = 0;
    ASSERT_EQ(std::sscanf(error.c_str() + at, " at line %zu, column %zu", &line, &column), 2) << error;
    std::size_t offset = 0;
    for (std::size_t l = 1; l < line; ++l) offset = prefix.find('\n', offset) + 1;
    EXPECT_LE(offset + column - 1, prefix.size()) << error;
  }
}

// Inputs that could make a parser crash, recurse or go quadratic.
TEST(CapabilitiesDecode, HostileInputsFailCleanly) {
  EXPECT_EQ(errorOf(std::string(1000000, '{')),
            "invalid JSON: expected a member name in double quotes, found '{' at line 1, column 2");
  std::string nestedObjects;
  for (int i = 0; i < 100000; ++i) nestedObjects += R"({"a":)";
  EXPECT_EQ(errorOf(nestedObjects), "invalid JSON: nesting deeper than 1024 levels at line 1, column 5121");
  EXPECT_EQ(errorOf("{\"a\": \"" + std::string(4000000, 'x')),
            "invalid JSON: unclosed string at line 1, column 7");
  EXPECT_EQ(errorOf(std::string(2000000, '\n') + "#"),
            "invalid JSON: expected a value, found '#' at line 2000001, column 1");

  // Many members, and many repeats of one key, decode in linear time.
  std::string manyKeys = "{";
  std::string repeatedKey = "{";
  for (int i = 0; i < 200000; ++i) {
    manyKeys += "\"k" + std::to_string(i) + "\": \"v\",";
    repeatedKey += "\"k\": 1,";
  }
  manyKeys += "\"last\": \"v\"}";
  repeatedKey += "\"k\": \"v\"}";
  for (const std::string* map : {&manyKeys, &repeatedKey}) {
    auto result = FinderCapabilities::decode(Doc().set("extensionToFormatId", *map).text());
    ASSERT_TRUE(result) << result.error();
    EXPECT_EQ(result->extensionToFormatId.size(), map == &manyKeys ? 200001u : 1u);
  }
}

TEST(CapabilitiesDecode, DecodesFromSeveralThreadsAtOnce) {
  const std::string good = Doc().text();
  const std::string bad = Doc().set("formats", "[{}]").text();
  std::vector<std::thread> threads;
  std::vector<int> failures(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 200; ++i) {
        auto ok = FinderCapabilities::decode(good);
        auto notOk = FinderCapabilities::decode(bad);
        if (!ok || !(*ok == baseRecord()) || notOk || notOk.error() != "formats[0].id: missing")
          ++failures[t];
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(failures, std::vector<int>(4, 0));
}

FinderCapabilities oddRecord() {
  FinderCapabilities c;
  c.schemaVersion = std::numeric_limits<std::int64_t>::min();
  std::string controls;
  for (char ch = 0; ch < 0x20; ++ch) controls += ch;
  c.generatedAt = controls + "\x7F";
  c.categories = {{"", "\"quoted\" \\ back\\slash", "doc.text"},
                  {"a/b", "caf\u00e9 \U0001F600", "\u2028\u2029"}};
  c.formats = {{"id", "", "", ""}, {"\t", "\"", "\\", "</script>"}};
  c.extensionToFormatId = {{"", ""}, {"JPG", "jpeg"}, {".png", "png"}, {"\"\\\n", "\u00e9"}};
  c.conversions = {{"png", {"", "a\"b", "\U0010FFFF"}}, {"\\", {}}, {"", {""}}};
  c.convertMenuTitle = "";
  return c;
}

TEST(CapabilitiesEncode, RoundTripsThroughDecode) {
  std::vector<FinderCapabilities> records = {baseRecord(), oddRecord(), FinderCapabilities{}};
  records[0].convertMenuTitle = "Convert \"it\"";
  for (const FinderCapabilities& record : records) {
    for (bool pretty : {false, true}) {
      const std::string text = record.encode(pretty);
      auto decoded = FinderCapabilities::decode(text);
      ASSERT_TRUE(decoded) << decoded.error() << "\n" << text;
      EXPECT_EQ(*decoded, record) << text;
      EXPECT_EQ(record.encode(pretty), text) << "encoding must be deterministic";
    }
  }
}

TEST(CapabilitiesEncode, CompactFormInFieldOrderWithSortedKeys) {
  FinderCapabilities c;
  c.schemaVersion = 1;
  c.generatedAt = "now";
  c.categories = {{"image", "Images", "photo"}};
  c.formats = {{"png", "PNG", "image", "png"}};
  c.extensionToFormatId = {{"png", "png"}, {"JPG", "jpeg"}, {"\u00e9", "e"}, {"a", "x"}};
  c.conversions = {{"png", {"jpeg", "png"}}, {"jpeg", {}}};
  EXPECT_EQ(
      c.encode(false),
      R"({"schemaVersion":1,"generatedAt":"now","categories":[{"id":"image","label":"Images","icon":"photo"}],)"
      R"("formats":[{"id":"png","displayName":"PNG","category":"image","primaryExtension":"png"}],)"
      R"("extensionToFormatId":{"JPG":"jpeg","a":"x","png":"png",")"
      "\u00e9"
      R"(":"e"},)"
      R"("conversions":{"jpeg":[],"png":["jpeg","png"]}})");
  c.convertMenuTitle = "a/b";
  const std::string withTitle = c.encode(false);
  EXPECT_EQ(withTitle.substr(withTitle.size() - 26), R"(,"convertMenuTitle":"a/b"})");
}

TEST(CapabilitiesEncode, PrettyFormLooksLikeTheExampleDocument) {
  FinderCapabilities c;
  c.schemaVersion = 1;
  c.generatedAt = "2026-11-23T09:00:00Z";
  c.categories = {{"image", "Images", "photo"}, {"audio", "Audio", "waveform"}};
  c.formats = {{"png", "PNG", "image", "png"}};
  c.extensionToFormatId = {{"png", "png"}, {"jpg", "jpeg"}};
  c.conversions = {{"png", {"jpeg", "webp"}}};
  c.convertMenuTitle = "Convert";
  EXPECT_EQ(c.encode(true), R"({
  "schemaVersion": 1,
  "generatedAt": "2026-11-23T09:00:00Z",
  "categories": [
    {"id": "image", "label": "Images", "icon": "photo"},
    {"id": "audio", "label": "Audio", "icon": "waveform"}
  ],
  "formats": [
    {"id": "png", "displayName": "PNG", "category": "image", "primaryExtension": "png"}
  ],
  "extensionToFormatId": {
    "jpg": "jpeg",
    "png": "png"
  },
  "conversions": {
    "png": ["jpeg", "webp"]
  },
  "convertMenuTitle": "Convert"
}
)");
  FinderCapabilities empty;
  EXPECT_EQ(empty.encode(true), R"({
  "schemaVersion": 0,
  "generatedAt": "",
  "categories": [],
  "formats": [],
  "extensionToFormatId": {},
  "conversions": {}
}
)");
}

TEST(CapabilitiesEncode, InvalidUtf8BecomesReplacementCharacters) {
  const std::string fffd = "\xEF\xBF\xBD";
  struct Case {
    std::string in;
    std::string decoded;
  };
  const std::vector<Case> cases = {
      {"a\xFF"
       "b",
       "a" + fffd + "b"},
      {"\xC3", fffd},
      {"\xC3\xA9\xC3", "\xC3\xA9" + fffd},
      {"\xED\xA0\x80", fffd + fffd + fffd},
      {"\xC0\xAF", fffd + fffd},
      {"\xF4\x90\x80\x80", fffd + fffd + fffd + fffd},
  };
  for (const Case& c : cases) {
    FinderCapabilities record = baseRecord();
    record.generatedAt = c.in;
    record.extensionToFormatId = {{c.in, c.in}};
    auto decoded = FinderCapabilities::decode(record.encode());
    ASSERT_TRUE(decoded) << decoded.error();
    EXPECT_EQ(decoded->generatedAt, c.decoded);
    EXPECT_EQ(decoded->extensionToFormatId,
              (std::unordered_map<std::string, std::string>{{c.decoded, c.decoded}}));
  }
}

}  // namespace
}  // namespace palvin
