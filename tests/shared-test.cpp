// The ground-level helpers: UTF-8 and JSON strings, paths.
#include <gtest/gtest.h>

#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <locale>
#include <random>
#include <string>
#include <system_error>
#include <tuple>
#include <utility>
#include <vector>

#include "shared/json_writer.h"
#include "shared/paths.h"

namespace palvin::json {
namespace {

// Both sides of every limit: sequence lengths, overlong forms, surrogates, U+10FFFF, sequences cut
// short and broken continuations. Repair leaves valid text alone and turns each bad byte into U+FFFD.
TEST(Utf8, ValidityAndRepair) {
  // clang-format off
  const std::vector<std::string> valid = {"", std::string("a\0b", 3), "\x7F", "\xC2\x80", "\xDF\xBF",
      "\xE0\xA0\x80", "\xED\x9F\xBF", "\xEE\x80\x80", "\xEF\xBF\xBF", "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF",
      "caf\xC3\xA9 \xF0\x9F\x98\x80"};
  const char* invalid[] = {"\x80", "\xBF", "\xC0\x80", "\xC1\xBF", "\xE0\x9F\xBF", "\xF0\x8F\xBF\xBF",
      "\xED\xA0\x80", "\xED\xBF\xBF", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xFF", "\xC3", "\xE2\x82",
      "\xF0\x9F\x98", "a\xC3", "\xC3\x61", "\xE2\x28\xA1", "\xE2\x82\x28", "\xF0\x9F\x98\x28",
      "\xC3\xA9\xA9"};
  // clang-format on
  for (const auto& s : valid) {
    EXPECT_TRUE(isValidUtf8(s)) << testing::PrintToString(s);
    EXPECT_EQ(toValidUtf8(s), s);
  }
  for (const auto& s : invalid) EXPECT_FALSE(isValidUtf8(s)) << testing::PrintToString(s);
  const std::string fffd = "\xEF\xBF\xBD";
  EXPECT_EQ(toValidUtf8("a\xFF\x62\xC3\xA9\xC3"), "a" + fffd + "b\xC3\xA9" + fffd);
  EXPECT_EQ(toValidUtf8("\xED\xA0\x80\xF4\x90\x80\x80!"),
            fffd + fffd + fffd + fffd + fffd + fffd + fffd + "!");
}

// Short escapes where JSON has them, \u00XX for other control characters, non-ASCII raw, '/' escaped only
// when asked; appended to what is there.
TEST(AppendString, EscapesWhatJsonRequires) {
  const std::vector<std::tuple<std::string, bool, std::string>> cases = {
      {"", false, R"("")"},
      {"say \"hi\" C:\\dir", false, R"("say \"hi\" C:\\dir")"},
      {"\b\f\n\r\t", false, R"("\b\f\n\r\t")"},
      {std::string("\0\x01\x0B\x1B\x1F\x7F", 6), false, "\"\\u0000\\u0001\\u000b\\u001b\\u001f\x7F\""},
      {"a/b", false, R"("a/b")"},
      {"/a//b\\/", true, R"("\/a\/\/b\\\/")"},
      {"caf\xC3\xA9 \xE2\x80\xA8 \xF0\x9F\x98\x80", true, "\"caf\xC3\xA9 \xE2\x80\xA8 \xF0\x9F\x98\x80\""},
  };
  for (const auto& [in, escapeSlash, out] : cases) {
    std::string text = "[1,";
    EXPECT_TRUE(appendString(text, in, escapeSlash));
    EXPECT_EQ(text, "[1," + out);
  }
}

// Exactly what std::to_chars writes here, where Apple's libc++ can't: the plain or scientific form at
// every length, a whole number's exact digits past 2^53, subnormals, the largest double, and powers of
// two whose shortest form lies above the nearest one (2^-1017, 2^976). Then random bit patterns and
// short decimals. Meanwhile the global locale has a decimal comma, as a host process may set.
TEST(FormatNumber, WritesWhatToCharsWrites) {
  struct Comma : std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
  };
  struct Global {
    std::locale previous = std::locale::global(std::locale(std::locale::classic(), new Comma));
    ~Global() { std::locale::global(previous); }
  } comma;
  std::vector<double> values = {1.5,       -1e300,  0x1p63, 0.1,       1e-7,
                                123456,    1e21,    1e22,   1e23,      1e16,
                                1.23e20,   1.5e-5,  1.5e-4, 2.0 / 3,   1234567890123456789.0,
                                0x1p-1017, 0x1p976, 5e-324, 0x1p-1022, 1.7976931348623157e308,
                                -0.0};
  for (int e = -1074; e <= 1023; e += 3) values.push_back(std::ldexp(1.0, e));
  std::mt19937_64 random(21);
  for (int i = 0; i < 3000; ++i) {
    const std::uint64_t bits = random();
    double value = 0;
    std::memcpy(&value, &bits, sizeof value);
    if (std::isfinite(value)) values.push_back(value);
    values.push_back(static_cast<double>(random() % 1000000) /
                     std::pow(10.0, static_cast<int>(random() % 12)));
  }
  for (double value : values) {
    std::array<char, 64> buffer{};
    const auto [end, error] = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value);
    ASSERT_EQ(error, std::errc());
    ASSERT_EQ(formatNumber(value), std::string(buffer.data(), end)) << std::hexfloat << value;
  }
}

// Extensions are the planner's (its path table) and joins the container's; these are the edges of
// parent and last component, which the sender's walk up to the host app and the log's folder rely on.
TEST(Paths, ParentAndLastComponent) {
  for (const auto& [path, parent, last] :
       std::vector<std::array<const char*, 3>>{{"/a/b.png", "/a", "b.png"},
                                               {"/x/Host.app/", "/x", "Host.app"},
                                               {"/top", "/", "top"},
                                               {"/", "/", "/"},
                                               {"//a//b//", "//a", "b"},
                                               {"relative", ".", "relative"}}) {
    EXPECT_EQ(paths::parent(path), parent) << path;
    EXPECT_EQ(paths::lastComponent(path), last) << path;
  }
}

}  // namespace
}  // namespace palvin::json
