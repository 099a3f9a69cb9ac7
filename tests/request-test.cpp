#include "requests/request.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace palvin {
namespace {

// The bytes the host app reads: field order, no white space, every '/' escaped, non-ASCII raw; files
// in the order given.
TEST(RequestEncode, ExactCompactBytesThatDecodeBack) {
  const std::vector<std::pair<FinderConversionRequest, std::string>> cases = {
      {{"image/webp", {{"/v/Café/Ελληνικά 写真 🎨.heic", "a/b"}, {"/v/a.avi", "avi"}}},
       R"({"targetFormatId":"image\/webp","files":[{"path":"\/v\/Café\/Ελληνικά 写真 🎨.heic",)"
       R"("sourceFormatId":"a\/b"},{"path":"\/v\/a.avi","sourceFormatId":"avi"}]})"},
      {{"", {}}, R"({"targetFormatId":"","files":[]})"},
  };
  for (const auto& [request, bytes] : cases) {
    auto encoded = request.encode();
    ASSERT_TRUE(encoded) << encoded.error();
    EXPECT_EQ(*encoded, bytes);
    auto decoded = FinderConversionRequest::decode(bytes);
    ASSERT_TRUE(decoded) << decoded.error();
    EXPECT_EQ(*decoded, request);
  }
}

// A corrupt file is never written: the failure names the field and shows its bytes, invalid ones and
// control characters as \xNN.
TEST(RequestEncode, InvalidUtf8FailsNamingTheField) {
  const std::vector<std::pair<FinderConversionRequest, std::string>> cases = {
      {{"png", {{"/ok", "a"}, {"/ok", "b"}, {"/b\xff\x01/x\xc3\xa9\"", "c"}}},
       R"(files[2].path is not valid UTF-8: "/b\xFF\x01/xé\"")"},
      {{"p\xed\xa0\x80", {}}, R"(targetFormatId is not valid UTF-8: "p\xED\xA0\x80")"},
      {{"png", {{"/ok", "cut\xe2\x82"}}}, R"(files[0].sourceFormatId is not valid UTF-8: "cut\xE2\x82")"},
  };
  for (const auto& [request, error] : cases) {
    auto encoded = request.encode();
    EXPECT_EQ(encoded ? "(encoded)" : encoded.error(), error);
  }
}

// Keys in any order, unknown keys and white space ignored, the last of repeated keys wins; all four
// keys are required with their JSON types, and one bad file rejects the whole document.
TEST(RequestDecode, RequiredKeysAndTypes) {
  auto decoded = FinderConversionRequest::decode(R"( {"files": [{"x": {"y": [1]}, "sourceFormatId": "png",
      "path": "\/a"}], "v": 3, "targetFormatId": "png", "targetFormatId": "tiff"} )");
  ASSERT_TRUE(decoded) << decoded.error();
  EXPECT_EQ(*decoded, (FinderConversionRequest{"tiff", {{"/a", "png"}}}));
  const std::vector<std::pair<std::string, std::string>> cases = {
      {R"({"targetFormatId":"p","files":[{"path":"/a","sourceFormatId":"j"},{"path":"/b"}]})",
       "files[1].sourceFormatId: missing"},
      {R"({"targetFormatId":"p"})", "files: missing"},
      {R"({"targetFormatId":null,"files":[]})", "targetFormatId: expected string, found null"},
      {R"({"targetFormatId":"p","files":{}})", "files: expected array, found object"},
      {R"({"targetFormatId":"p","files":["/a"]})", "files[0]: expected object, found string"},
      {R"({"targetFormatId":"p","files":[{"path":true,"sourceFormatId":"a"}]})",
       "files[0].path: expected string, found boolean"},
      {R"(["png"])", "(root): expected object, found array"},
  };
  for (const auto& [document, error] : cases) {
    auto result = FinderConversionRequest::decode(document);
    EXPECT_EQ(result ? "(decoded)" : result.error(), error) << document;
  }
}

TEST(RequestFile, NamesAndDirectory) {
  const std::regex uuid("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  std::set<std::string> seen;
  for (int i = 0; i < 5000; ++i) {
    const std::string name = i % 2 ? makeUuidV4() + ".json" : newRequestFileName();
    ASSERT_TRUE(std::regex_match(name.substr(0, 36), uuid) && name.substr(36) == ".json") << name;
    seen.insert(name);
  }
  EXPECT_EQ(seen.size(), 5000u);
  EXPECT_EQ(requestDirectory("/home/u/group"), "/home/u/group/requests");
  EXPECT_EQ(requestDirectory("/home/u/group/"), "/home/u/group/requests");
}

}  // namespace
}  // namespace palvin
