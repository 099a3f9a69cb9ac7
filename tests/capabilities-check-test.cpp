#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "catalogue/capabilities_check.h"
#include "platform/linux_text.h"

namespace palvin {
namespace {

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

}  // namespace
}  // namespace palvin
