#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "shared/json_writer.h"

namespace palvin::json {
namespace {

TEST(IsValidUtf8, BoundariesOfEachSequenceLength) {
  struct Case {
    std::string bytes;
    bool valid;
    const char* what;
  };
  const std::vector<Case> cases = {
      {"", true, "empty"},
      {std::string("a\0b", 3), true, "NUL is ASCII"},
      {"\x7F", true, "U+007F"},
      {"\xC2\x80", true, "U+0080, smallest two-byte"},
      {"\xDF\xBF", true, "U+07FF, largest two-byte"},
      {"\xE0\xA0\x80", true, "U+0800, smallest three-byte"},
      {"\xED\x9F\xBF", true, "U+D7FF, just below the surrogates"},
      {"\xEE\x80\x80", true, "U+E000, just above the surrogates"},
      {"\xEF\xBF\xBF", true, "U+FFFF"},
      {"\xF0\x90\x80\x80", true, "U+10000, smallest four-byte"},
      {"\xF4\x8F\xBF\xBF", true, "U+10FFFF, largest code point"},
      {"caf\xC3\xA9 \xF0\x9F\x98\x80!", true, "mixed"},
      {"\x80", false, "lone continuation byte"},
      {"\xBF", false, "lone continuation byte"},
      {"\xC0\x80", false, "overlong NUL"},
      {"\xC1\xBF", false, "overlong two-byte"},
      {"\xE0\x9F\xBF", false, "overlong three-byte"},
      {"\xF0\x8F\xBF\xBF", false, "overlong four-byte"},
      {"\xED\xA0\x80", false, "U+D800, surrogate"},
      {"\xED\xBF\xBF", false, "U+DFFF, surrogate"},
      {"\xF4\x90\x80\x80", false, "U+110000, past the last code point"},
      {"\xF5\x80\x80\x80", false, "lead byte F5"},
      {"\xFF", false, "byte FF"},
      {"\xC3", false, "two-byte sequence cut short"},
      {"\xE2\x82", false, "three-byte sequence cut short"},
      {"\xF0\x9F\x98", false, "four-byte sequence cut short"},
      {"a\xC3", false, "cut short at the end of a longer text"},
      {"\xC3"
       "a",
       false, "continuation replaced by ASCII"},
      {"\xE2\x28\xA1", false, "bad second byte"},
      {"\xE2\x82\x28", false, "bad third byte"},
      {"\xF0\x9F\x98\x28", false, "bad fourth byte"},
      {"\xC3\xA9\xA9", false, "extra continuation byte"},
  };
  for (const Case& c : cases) EXPECT_EQ(isValidUtf8(c.bytes), c.valid) << c.what;
}

TEST(AppendString, EscapesWhatJsonRequires) {
  struct Case {
    std::string in;
    std::string out;
  };
  const std::vector<Case> cases = {
      {"", R"("")"},
      {"plain text", R"("plain text")"},
      {"say \"hi\"", R"("say \"hi\"")"},
      {"C:\\dir", R"("C:\\dir")"},
      {"\b\f\n\r\t", R"("\b\f\n\r\t")"},
      {std::string("\0\x01\x1F", 3), R"("\u0000\u0001\u001f")"},
      {"\x0B\x1B", R"("\u000b\u001b")"},
      {"\x7F", "\"\x7F\""},
      {"a/b", R"("a/b")"},
      {"caf\xC3\xA9 \xE2\x80\xA8 \xF0\x9F\x98\x80", "\"caf\xC3\xA9 \xE2\x80\xA8 \xF0\x9F\x98\x80\""},
  };
  for (const Case& c : cases) {
    std::string out;
    EXPECT_TRUE(appendString(out, c.in));
    EXPECT_EQ(out, c.out);
  }
}

TEST(AppendString, EscapesSlashOnlyWhenAsked) {
  std::string out;
  EXPECT_TRUE(appendString(out, "/a//b/", true));
  EXPECT_EQ(out, R"("\/a\/\/b\/")");
  out.clear();
  EXPECT_TRUE(appendString(out, "\\/", true));
  EXPECT_EQ(out, R"("\\\/")");
}

TEST(AppendString, AppendsToWhatIsThere) {
  std::string out = "[1,";
  EXPECT_TRUE(appendString(out, "x"));
  EXPECT_TRUE(appendString(out += ',', "y"));
  EXPECT_EQ(out, R"([1,"x","y")");
}

TEST(AppendString, RefusesInvalidUtf8AndAppendsNothing) {
  for (std::string bad : {"\xFF", "ok\xC3", "\xED\xA0\x80", "\xC0\x80"}) {
    std::string out = "prefix";
    EXPECT_FALSE(appendString(out, bad));
    EXPECT_FALSE(appendString(out, bad, true));
    EXPECT_EQ(out, "prefix");
  }
}

}  // namespace
}  // namespace palvin::json
