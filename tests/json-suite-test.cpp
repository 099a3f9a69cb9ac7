// The parsing cases of JSONTestSuite run through the capabilities decoder: the syntax stage must
// accept every y_ text and reject every n_ text as a syntax error; i_ texts may go either way.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include "catalogue/capabilities.h"
#include "support/temp_dir.h"

namespace palvin {
namespace {

namespace fs = std::filesystem;

std::string errorOf(const std::string& text) {
  auto result = FinderCapabilities::decode(text);
  return result ? "(decoded)" : result.error();
}

TEST(JsonTestSuite, SyntaxStageAgreesWithTheSuite) {
  const fs::path dir = PALVIN_TESTDATA_DIR "/json-test-suite/test_parsing";
  if (!fs::is_directory(dir)) GTEST_SKIP() << "JSON test suite not found at " << dir;
  int files = 0;
  for (const auto& entry : fs::directory_iterator(dir)) {
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

}  // namespace
}  // namespace palvin
