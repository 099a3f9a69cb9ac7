// The parsing cases of JSONTestSuite run through the capabilities decoder: the syntax stage must
// accept every y_ text and reject every n_ text as a syntax error; i_ texts may go either way.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "catalogue/capabilities.h"

namespace palvin {
namespace {

namespace fs = std::filesystem;

const fs::path kSuiteDir = PALVIN_TESTDATA_DIR "/json-test-suite/test_parsing";
constexpr std::string_view kSyntaxError = "invalid JSON: ";

struct SuiteFile {
  std::string name;
  std::string text;
};

std::vector<SuiteFile> suiteFiles(char kind) {
  std::vector<SuiteFile> files;
  for (const auto& entry : fs::directory_iterator(kSuiteDir)) {
    std::string name = entry.path().filename().string();
    if (name.size() < 2 || name[0] != kind || name[1] != '_') continue;
    std::ifstream in(entry.path(), std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    files.push_back({std::move(name), text.str()});
  }
  std::sort(files.begin(), files.end(), [](const auto& a, const auto& b) { return a.name < b.name; });
  return files;
}

bool isSyntaxError(const Result<FinderCapabilities>& result) {
  return !result && result.error().rfind(kSyntaxError, 0) == 0;
}

class JsonTestSuite : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!fs::is_directory(kSuiteDir)) GTEST_SKIP() << "JSON test suite not found at " << kSuiteDir;
  }
};

TEST_F(JsonTestSuite, RejectsEveryNTextAsASyntaxError) {
  const auto files = suiteFiles('n');
  ASSERT_GT(files.size(), 150u);
  for (const SuiteFile& f : files) {
    auto result = FinderCapabilities::decode(f.text);
    ASSERT_TRUE(isSyntaxError(result)) << f.name << ": " << (result ? "decoded" : result.error());
    // Every rejection is placed in the text, except for texts with nothing in them.
    const std::string& error = result.error();
    EXPECT_TRUE(error == "invalid JSON: empty document" || error.find(" at line ") != std::string::npos)
        << f.name << ": " << error;
  }
}

TEST_F(JsonTestSuite, AcceptsEveryYTextAtTheSyntaxStage) {
  const auto files = suiteFiles('y');
  ASSERT_GT(files.size(), 90u);
  for (const SuiteFile& f : files) {
    auto result = FinderCapabilities::decode(f.text);
    EXPECT_FALSE(isSyntaxError(result)) << f.name << ": " << result.error();
  }
}

// Junk after a valid text is the first error, so its position is known exactly; a locator that is
// stricter than the parser would report something earlier instead.
TEST_F(JsonTestSuite, LocatesJunkAfterEveryYText) {
  for (const SuiteFile& f : suiteFiles('y')) {
    const auto lines = std::count(f.text.begin(), f.text.end(), '\n');
    const std::string expected =
        "invalid JSON: expected end of input after the top-level value, found '@' at line " +
        std::to_string(lines + 2) + ", column 1";
    auto result = FinderCapabilities::decode(f.text + "\n@");
    ASSERT_FALSE(result) << f.name;
    EXPECT_EQ(result.error(), expected) << f.name;
  }
}

TEST_F(JsonTestSuite, ImplementationDefinedTextsDoNotCrash) {
  const auto files = suiteFiles('i');
  ASSERT_GT(files.size(), 20u);
  for (const SuiteFile& f : files) {
    auto result = FinderCapabilities::decode(f.text);
    // Either outcome is allowed; a syntax error must still say where it is.
    if (isSyntaxError(result)) {
      EXPECT_NE(result.error().find(" at line "), std::string::npos) << f.name;
    }
  }
}

}  // namespace
}  // namespace palvin
