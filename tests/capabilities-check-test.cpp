#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "catalogue/capabilities_check.h"

namespace palvin {
namespace {

using Severity = CapabilityFinding::Severity;

// A consistent document; tests splice their own members in front of the
// closing brace or replace parts of it.
constexpr const char* kClean = R"({
  "schemaVersion": 1,
  "generatedAt": "2026-11-23T09:00:00Z",
  "categories": [
    {"id": "image", "label": "Images", "icon": "photo"},
    {"id": "audio", "label": "Audio", "icon": "waveform"}
  ],
  "formats": [
    {"id": "png", "displayName": "PNG", "category": "image", "primaryExtension": "png"},
    {"id": "jpeg", "displayName": "JPEG", "category": "image", "primaryExtension": "jpg"},
    {"id": "wav", "displayName": "WAV", "category": "audio", "primaryExtension": "wav"},
    {"id": "mp3", "displayName": "MP3", "category": "audio", "primaryExtension": "mp3"}
  ],
  "extensionToFormatId": {"png": "png", "jpg": "jpeg", "jpeg": "jpeg", "wav": "wav", "été": "wav"},
  "conversions": {"png": ["jpeg"], "jpeg": ["png"], "wav": ["mp3"]},
  "convertMenuTitle": "Convert"
})";

std::vector<std::pair<Severity, std::string>> severityAndPath(const CapabilityCheckReport& report) {
  std::vector<std::pair<Severity, std::string>> out;
  for (const auto& finding : report.findings) out.emplace_back(finding.severity, finding.path);
  return out;
}

std::string describe(const CapabilityCheckReport& report) {
  std::string out;
  for (const auto& f : report.findings) {
    out += (f.severity == Severity::error ? "error " : "warning ") + f.path + ": " + f.message + "\n";
  }
  return out;
}

TEST(CapabilitiesCheck, CleanDocumentHasNoFindings) {
  auto report = checkCapabilities(kClean);
  EXPECT_TRUE(report.usable);
  EXPECT_TRUE(report.findings.empty()) << describe(report);
}

TEST(CapabilitiesCheck, EveryWarningOnceInDocumentOrder) {
  const char* document = R"({
    "schemaVersion": 1,
    "generatedAt": "x",
    "categories": [
      {"id": "image", "label": "Images", "icon": "photo"},
      {"id": "image", "label": "Pictures", "icon": "photo"}
    ],
    "formats": [
      {"id": "png", "displayName": "PNG", "category": "image", "primaryExtension": "png"},
      {"id": "jpeg", "displayName": "JPEG", "category": "image", "primaryExtension": "jpg",
       "primaryExtension": "jpeg"},
      {"id": "png", "displayName": "PNG again", "category": "image", "primaryExtension": "png"},
      {"id": "ogg", "displayName": "OGG", "category": "sound", "primaryExtension": "ogg"}
    ],
    "extensionToFormatId": {"png": "png", "JPG": "jpeg", ".jpeg": "jpeg", "tga": "tga"},
    "conversions": {
      "png": ["jpeg", "png", "tiff", "jpeg"],
      "tga": ["png"]
    }
  })";
  struct Expected {
    const char* path;
    const char* word;  // distinguishes the kind of warning
  };
  const Expected expected[] = {
      {"categories[1].id", "duplicate category id \"image\" (first at categories[0])"},
      {"formats[1].primaryExtension", "repeated"},
      {"formats[2].id", "duplicate format id \"png\" (first at formats[0])"},
      {"formats[3].category", "\"sound\" is not listed in categories"},
      {R"(extensionToFormatId["JPG"])", "upper case"},
      {R"(extensionToFormatId[".jpeg"])", "\".\""},
      {R"(extensionToFormatId["tga"])", "\"tga\" is not listed in formats"},
      {R"(conversions["png"][1])", "itself"},
      {R"(conversions["png"][2])", "\"tiff\" is not listed in formats"},
      {R"(conversions["png"][3])", "(first at conversions[\"png\"][0])"},
      {R"(conversions["tga"])", "source format \"tga\" is not listed in formats"},
  };

  auto report = checkCapabilities(document);
  EXPECT_TRUE(report.usable);
  ASSERT_EQ(report.findings.size(), std::size(expected)) << describe(report);
  for (std::size_t i = 0; i < std::size(expected); ++i) {
    const auto& finding = report.findings[i];
    EXPECT_EQ(finding.severity, Severity::warning) << finding.path;
    EXPECT_EQ(finding.path, expected[i].path);
    EXPECT_NE(finding.message.find(expected[i].word), std::string::npos)
        << finding.path << ": " << finding.message;
  }
}

TEST(CapabilitiesCheck, RepeatedMemberNamesAnywhere) {
  const char* document = R"({
    "schemaVersion": 1,
    "generatedAt": "a",
    "generatedAt": "b",
    "categories": [{"id": "image", "label": "Images", "icon": "photo", "icon": "camera"}],
    "formats": [{"id": "png", "displayName": "PNG", "category": "image", "primaryExtension": "png"}],
    "extensionToFormatId": {"png": "png", "png": "png"},
    "conversions": {},
    "extra": {"a": 1, "a": 2, "list": [{"b": 1, "b": 2, "b": 3}]},
    "x-y": {"k": true, "k": false}
  })";
  auto report = checkCapabilities(document);
  EXPECT_TRUE(report.usable);
  const std::vector<std::pair<Severity, std::string>> expected = {
      {Severity::warning, "generatedAt"},
      {Severity::warning, "categories[0].icon"},
      {Severity::warning, R"(extensionToFormatId["png"])"},
      {Severity::warning, "extra.a"},
      {Severity::warning, "extra.list[0].b"},
      {Severity::warning, "extra.list[0].b"},
      {Severity::warning, R"(["x-y"].k)"},
  };
  EXPECT_EQ(severityAndPath(report), expected) << describe(report);
}

TEST(CapabilitiesCheck, ExtensionKeysThatNeverMatch) {
  struct Case {
    const char* key;
    std::size_t warnings;
  };
  // Lower-casing is Unicode-aware, so non-ASCII capitals never match either.
  const Case cases[] = {{"jpg", 0}, {"über", 0}, {"tar.gz", 0}, {"Jpg", 1},
                        {"ÉTÉ", 1}, {".jpg", 1}, {".JPG", 2},   {"mp4", 0}};
  for (const auto& c : cases) {
    std::string document = kClean;
    document.replace(document.find(R"("jpg": "jpeg")"), 5, std::string("\"") + c.key + "\"");
    auto report = checkCapabilities(document);
    EXPECT_TRUE(report.usable) << c.key;
    EXPECT_EQ(report.findings.size(), c.warnings) << c.key << "\n" << describe(report);
    for (const auto& finding : report.findings) {
      EXPECT_EQ(finding.path, std::string("extensionToFormatId[\"") + c.key + "\"]");
    }
  }
}

TEST(CapabilitiesCheck, DecodingFailureIsOneErrorWithItsPath) {
  std::string missing = kClean;
  missing.replace(missing.find(R"(, "primaryExtension": "jpg")"), 27, "");
  struct Case {
    std::string document;
    const char* path;
  };
  const Case cases[] = {
      {missing, "formats[1].primaryExtension"},
      {"{", "(root)"},
      {"", "(root)"},
      {"[1, 2]", "(root)"},
  };
  for (const auto& c : cases) {
    auto report = checkCapabilities(c.document);
    EXPECT_FALSE(report.usable) << c.document;
    ASSERT_EQ(report.findings.size(), 1u) << describe(report);
    EXPECT_EQ(report.findings[0].severity, Severity::error);
    EXPECT_EQ(report.findings[0].path, c.path);
    EXPECT_FALSE(report.findings[0].message.empty());
  }
}

TEST(CapabilitiesCheck, DecodingFailureInsideAQuotedKey) {
  // The ": " inside the key must not end the path.
  std::string document = kClean;
  document.replace(document.find(R"("jpg": "jpeg")"), 13, R"("a: b": 5)");
  auto report = checkCapabilities(document);
  EXPECT_FALSE(report.usable);
  ASSERT_EQ(report.findings.size(), 1u) << describe(report);
  EXPECT_EQ(report.findings[0].path.rfind("extensionToFormatId", 0), 0u) << describe(report);
  EXPECT_NE(report.findings[0].path.find("a: b"), std::string::npos) << describe(report);
}

TEST(CapabilitiesCheck, OtherSchemaVersionIsAnErrorBeforeTheWarnings) {
  std::string document = kClean;
  document.replace(document.find(R"("schemaVersion": 1)"), 18, R"("schemaVersion": 2)");
  document.replace(document.find(R"("jpeg": ["png"])"), 15, R"("jpeg": ["png", "gif"])");
  auto report = checkCapabilities(document);
  EXPECT_FALSE(report.usable);
  const std::vector<std::pair<Severity, std::string>> expected = {
      {Severity::error, "schemaVersion"},
      {Severity::warning, R"(conversions["jpeg"][1])"},
  };
  EXPECT_EQ(severityAndPath(report), expected) << describe(report);
  EXPECT_NE(report.findings[0].message.find('2'), std::string::npos);
}

}  // namespace
}  // namespace palvin
