#include "requests/request.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <string>

namespace palvin {
namespace {

struct EncodeCase {
  const char* name;
  FinderConversionRequest request;
  std::string expected;
};

class EncodeTest : public ::testing::TestWithParam<EncodeCase> {};

TEST_P(EncodeTest, WritesTheExactCompactFormAndDecodesBack) {
  const auto& c = GetParam();
  auto encoded = c.request.encode();
  ASSERT_TRUE(encoded.ok()) << encoded.error();
  EXPECT_EQ(*encoded, c.expected);

  auto decoded = FinderConversionRequest::decode(*encoded);
  ASSERT_TRUE(decoded.ok()) << decoded.error();
  EXPECT_EQ(*decoded, c.request);
}

INSTANTIATE_TEST_SUITE_P(
    Request, EncodeTest,
    ::testing::Values(
        EncodeCase{"OneFile",
                   {"jpeg", {{"photo.png", "png"}}},
                   R"({"targetFormatId":"jpeg","files":[{"path":"photo.png","sourceFormatId":"png"}]})"},
        EncodeCase{
            "SlashesEscaped",
            {"jpeg", {{"/Users/a/b.png", "png"}}},
            R"({"targetFormatId":"jpeg","files":[{"path":"\/Users\/a\/b.png","sourceFormatId":"png"}]})"},
        EncodeCase{"SlashInIdentifiers",
                   {"image/webp", {{"/x", "a/b"}}},
                   R"({"targetFormatId":"image\/webp","files":[{"path":"\/x","sourceFormatId":"a\/b"}]})"},
        EncodeCase{"NonAsciiRaw",
                   {"png", {{"/tmp/Café/Ελληνικά 写真 🎨.heic", "heic"}}},
                   "{\"targetFormatId\":\"png\",\"files\":[{\"path\":\"\\/tmp\\/Café\\/Ελληνικά "
                   "写真 🎨.heic\",\"sourceFormatId\":\"heic\"}]}"},
        EncodeCase{
            "QuoteAndBackslash",
            {"png", {{R"(/a "b" \c.jpg)", "jpg"}}},
            R"({"targetFormatId":"png","files":[{"path":"\/a \"b\" \\c.jpg","sourceFormatId":"jpg"}]})"},
        EncodeCase{"ControlCharacters",
                   {"png", {{"a\tb\nc\rd\be\ff\x01g\x1fh\x7f", "x"}}},
                   "{\"targetFormatId\":\"png\",\"files\":[{\"path\":"
                   "\"a\\tb\\nc\\rd\\be\\ff\\u0001g\\u001fh\x7f\",\"sourceFormatId\":\"x\"}]}"},
        EncodeCase{"SeveralFilesInOrder",
                   {"mp4", {{"/v/b.mov", "mov"}, {"/v/a.avi", "avi"}, {"/v/c.mov", "mov"}}},
                   R"({"targetFormatId":"mp4","files":[{"path":"\/v\/b.mov","sourceFormatId":"mov"},)"
                   R"({"path":"\/v\/a.avi","sourceFormatId":"avi"},)"
                   R"({"path":"\/v\/c.mov","sourceFormatId":"mov"}]})"},
        EncodeCase{"EmptyStringsAndNoFiles", {"", {}}, R"({"targetFormatId":"","files":[]})"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(RequestEncode, InvalidUtf8FailsNamingTheField) {
  struct Case {
    FinderConversionRequest request;
    std::string expected;
  };
  const Case cases[] = {
      {{"png", {{"/ok", "a"}, {"/ok", "b"}, {"/bad\xff/x\xc3\xa9\"", "c"}}},
       R"(files[2].path is not valid UTF-8: "/bad\xFF/xé\"")"},
      {{"png", {{"/ok", "\xc0\xaf"}}}, R"(files[0].sourceFormatId is not valid UTF-8: "\xC0\xAF")"},
      {{"p\xed\xa0\x80", {{"/ok", "a"}}},  // an encoded surrogate
       R"(targetFormatId is not valid UTF-8: "p\xED\xA0\x80")"},
      {{"png", {{"trunc\xe2\x82", "a"}}}, R"(files[0].path is not valid UTF-8: "trunc\xE2\x82")"},
  };
  for (const auto& c : cases) {
    auto encoded = c.request.encode();
    ASSERT_FALSE(encoded.ok()) << *encoded;
    EXPECT_EQ(encoded.error(), c.expected);
  }
}

TEST(RequestDecode, AcceptsOtherKeyOrderExtraKeysAndWhiteSpace) {
  const FinderConversionRequest expected{"tiff", {{"/a/b.png", "png"}, {"/c", "gif"}}};
  const char* documents[] = {
      R"({"files":[{"sourceFormatId":"png","path":"\/a\/b.png"},{"path":"/c","sourceFormatId":"gif"}],"targetFormatId":"tiff"})",
      R"( { "targetFormatId" : "tiff" , "version": 3, "files" : [
            {"path":"/a/b.png","extra":{"x":[1,2]},"sourceFormatId":"png"},
            {"path":"\u002fc","sourceFormatId":"gif","note":null} ] } )",
      // A repeated member overrides the earlier one.
      R"({"targetFormatId":"png","targetFormatId":"tiff","files":[{"path":"/a/b.png","sourceFormatId":"png"},{"path":"/c","sourceFormatId":"gif"}]})",
  };
  for (const char* document : documents) {
    auto decoded = FinderConversionRequest::decode(document);
    ASSERT_TRUE(decoded.ok()) << document << "\n" << decoded.error();
    EXPECT_EQ(*decoded, expected) << document;
  }
}

TEST(RequestDecode, RejectsTheWholeDocumentWithAPathStyleDescription) {
  struct Case {
    const char* document;
    const char* expected;
  };
  const Case cases[] = {
      {R"({"targetFormatId":"png","files":[{"path":"/a","sourceFormatId":"jpg"},{"path":"/b"}]})",
       "files[1].sourceFormatId: missing"},
      {R"({"targetFormatId":"png","files":[{"sourceFormatId":"jpg"}]})", "files[0].path: missing"},
      {R"({"files":[]})", "targetFormatId: missing"},
      {R"({"targetFormatId":"png"})", "files: missing"},
      {R"({"targetFormatId":1,"files":[]})", "targetFormatId: expected string, found number"},
      {R"({"targetFormatId":null,"files":[]})", "targetFormatId: expected string, found null"},
      {R"({"targetFormatId":"png","files":{}})", "files: expected array, found object"},
      {R"({"targetFormatId":"png","files":["/a"]})", "files[0]: expected object, found string"},
      {R"({"targetFormatId":"png","files":[{"path":true,"sourceFormatId":"a"}]})",
       "files[0].path: expected string, found boolean"},
      {R"({"targetFormatId":"png","files":[{"path":"/a","sourceFormatId":["a"]}]})",
       "files[0].sourceFormatId: expected string, found array"},
      {R"(["png"])", "(root): expected object, found array"},
  };
  for (const auto& c : cases) {
    auto decoded = FinderConversionRequest::decode(c.document);
    ASSERT_FALSE(decoded.ok()) << c.document;
    EXPECT_EQ(decoded.error(), c.expected) << c.document;
  }
}

TEST(RequestDecode, SyntaxErrorsAreInvalidJson) {
  const std::string documents[] = {
      "",
      "{",
      R"({"targetFormatId":"png","files":[})",
      R"({"targetFormatId":"png","files":[]})"
      " x",
      "{\"targetFormatId\":\"p\xff\",\"files\":[]}",
  };
  for (const auto& document : documents) {
    auto decoded = FinderConversionRequest::decode(document);
    ASSERT_FALSE(decoded.ok()) << document;
    EXPECT_EQ(decoded.error().rfind("invalid JSON: ", 0), 0u) << decoded.error();
  }
}

TEST(RequestFile, UuidIsCanonicalUpperCaseVersion4) {
  const std::regex canonical("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  std::set<std::string> seen;
  constexpr std::size_t kCount = 5000;
  for (std::size_t i = 0; i < kCount; ++i) {
    std::string uuid = makeUuidV4();
    ASSERT_TRUE(std::regex_match(uuid, canonical)) << uuid;
    seen.insert(uuid);
  }
  EXPECT_EQ(seen.size(), kCount);
}

TEST(RequestFile, NamesAndDirectory) {
  const std::regex name("[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}\\.json");
  std::string first = newRequestFileName();
  std::string second = newRequestFileName();
  EXPECT_TRUE(std::regex_match(first, name)) << first;
  EXPECT_TRUE(std::regex_match(second, name)) << second;
  EXPECT_NE(first, second);

  EXPECT_EQ(requestDirectory("/home/u/.local/share/group"), "/home/u/.local/share/group/requests");
  EXPECT_EQ(requestDirectory("/home/u/.local/share/group/"), "/home/u/.local/share/group/requests");
  EXPECT_EQ(requestDirectory("/"), "/requests");
  EXPECT_EQ(kRequestDirectoryName, "requests");
}

}  // namespace
}  // namespace palvin
