// The extension's generated bundle declarations and entitlements: well-formed
// XML property lists that name the same identifiers as <palvin/identifiers.h>
// and the principal class the shell actually defines.
#include <gtest/gtest.h>
#include <palvin/identifiers.h>

#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "shared/result.h"

namespace palvin {
namespace {

// --- A reader for the XML property list format, strict about well-formedness.

struct PlistValue {
  enum class Kind { string, boolean, integer, real, date, data, array, dict };
  Kind kind = Kind::string;
  std::string text;  // the content of a scalar
  bool boolean = false;
  std::vector<PlistValue> array;
  std::vector<std::pair<std::string, PlistValue>> dict;  // in document order

  const PlistValue* find(std::string_view key) const {
    for (const auto& [name, value] : dict) {
      if (name == key) return &value;
    }
    return nullptr;
  }
};

class PlistReader {
 public:
  explicit PlistReader(std::string_view text) : text_(text) {}

  Result<PlistValue> read() {
    try {
      if (startsWith("<?xml")) skipPast("?>");
      skipMisc(true);
      expect("<plist");
      skipUntil('>');
      ++at_;
      PlistValue root = value();
      skipMisc(false);
      expect("</plist>");
      skipMisc(false);
      if (at_ != text_.size()) fail("content after </plist>");
      return root;
    } catch (const std::string& error) {
      return Error{error};
    }
  }

 private:
  [[noreturn]] void fail(const std::string& what) { throw what + " at byte " + std::to_string(at_); }

  bool startsWith(std::string_view prefix) const { return text_.substr(at_).starts_with(prefix); }

  void expect(std::string_view token) {
    if (!startsWith(token)) fail("expected " + std::string(token));
    at_ += token.size();
  }

  void skipUntil(char c) {
    at_ = text_.find(c, at_);
    if (at_ == std::string_view::npos) {
      at_ = text_.size();
      fail(std::string("missing '") + c + "'");
    }
  }

  void skipPast(std::string_view end) {
    std::size_t found = text_.find(end, at_);
    if (found == std::string_view::npos) fail("missing " + std::string(end));
    at_ = found + end.size();
  }

  // White space and comments between elements; a DOCTYPE only in the prolog.
  void skipMisc(bool prolog) {
    for (;;) {
      while (at_ < text_.size() && std::string_view(" \t\r\n").find(text_[at_]) != std::string_view::npos)
        ++at_;
      if (startsWith("<!--")) {
        skipPast("-->");
      } else if (prolog && startsWith("<!DOCTYPE")) {
        skipPast(">");
        prolog = false;
      } else {
        return;
      }
    }
  }

  // Character data up to the next tag, with the XML entities decoded.
  std::string characters() {
    std::string out;
    while (at_ < text_.size() && text_[at_] != '<') {
      if (text_[at_] == '&') {
        static const std::pair<std::string_view, char> kEntities[] = {
            {"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}};
        bool known = false;
        for (const auto& [entity, c] : kEntities) {
          if (startsWith(entity)) {
            out += c;
            at_ += entity.size();
            known = true;
            break;
          }
        }
        if (!known) fail("unknown entity");
      } else {
        out += text_[at_++];
      }
    }
    return out;
  }

  // "<name>" or "<name/>"; true for the empty form.
  bool openTag(std::string& name) {
    expect("<");
    std::size_t start = at_;
    while (at_ < text_.size() && std::isalpha(static_cast<unsigned char>(text_[at_]))) ++at_;
    name = std::string(text_.substr(start, at_ - start));
    if (name.empty()) fail("expected an element");
    if (startsWith("/>")) {
      at_ += 2;
      return true;
    }
    expect(">");
    return false;
  }

  std::string scalar(const std::string& name, bool empty) {
    if (empty) return {};
    std::string content = characters();
    expect("</" + name + ">");
    return content;
  }

  PlistValue value() {
    skipMisc(false);
    PlistValue result;
    std::string name;
    bool empty = openTag(name);
    if (name == "dict") {
      result.kind = PlistValue::Kind::dict;
      while (!empty) {
        skipMisc(false);
        if (startsWith("</dict>")) {
          at_ += 7;
          break;
        }
        std::string tag;
        if (openTag(tag) || tag != "key") fail("expected <key> in <dict>");
        std::string key = scalar("key", false);
        if (result.find(key) != nullptr) fail("duplicate key " + key);
        PlistValue member = value();
        result.dict.emplace_back(std::move(key), std::move(member));
      }
    } else if (name == "array") {
      result.kind = PlistValue::Kind::array;
      while (!empty) {
        skipMisc(false);
        if (startsWith("</array>")) {
          at_ += 8;
          break;
        }
        result.array.push_back(value());
      }
    } else if (name == "true" || name == "false") {
      if (!empty) expect("</" + name + ">");
      result.kind = PlistValue::Kind::boolean;
      result.boolean = name == "true";
    } else {
      static const std::pair<std::string_view, PlistValue::Kind> kScalars[] = {
          {"string", PlistValue::Kind::string},
          {"integer", PlistValue::Kind::integer},
          {"real", PlistValue::Kind::real},
          {"date", PlistValue::Kind::date},
          {"data", PlistValue::Kind::data}};
      bool known = false;
      for (const auto& [scalarName, kind] : kScalars) {
        if (name == scalarName) {
          result.kind = kind;
          known = true;
        }
      }
      if (!known) fail("unknown element <" + name + ">");
      result.text = scalar(name, empty);
    }
    return result;
  }

  std::string_view text_;
  std::size_t at_ = 0;
};

TEST(PlistReader, RejectsMalformedDocuments) {
  const std::string head = "<?xml version=\"1.0\"?>\n<plist version=\"1.0\">";
  struct Case {
    const char* what;
    std::string body;
  };
  const Case cases[] = {
      {"unclosed dict", "<dict><key>a</key><string>x</string></plist>"},
      {"mismatched end tag", "<dict><key>a</key><string>x</integer></dict></plist>"},
      {"key without value", "<dict><key>a</key></dict></plist>"},
      {"value without key", "<dict><string>x</string></dict></plist>"},
      {"duplicate key", "<dict><key>a</key><true/><key>a</key><false/></dict></plist>"},
      {"unknown element", "<dict><key>a</key><yes/></dict></plist>"},
      {"text between elements", "<dict>stray<key>a</key><true/></dict></plist>"},
      {"unknown entity", "<string>a &nbsp; b</string></plist>"},
      {"raw ampersand", "<string>a & b</string></plist>"},
      {"missing </plist>", "<dict/>"},
      {"second root value", "<dict/><dict/></plist>"},
      {"content after </plist>", "<dict/></plist><dict/>"},
  };
  for (const Case& c : cases) {
    EXPECT_FALSE(PlistReader(head + c.body).read().ok()) << c.what;
  }
}

TEST(PlistReader, ReadsTheValueKindsAndDecodesEntities) {
  auto plist = PlistReader(R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<!-- comment -->
<plist version="1.0">
<dict>
  <key>s</key> <string>a &amp; &lt;b&gt;</string>
  <!-- inside -->
  <key>empty</key><string/>
  <key>t</key><true/>
  <key>list</key><array><string>x</string><integer>7</integer></array>
  <key>nested</key><dict><key>f</key><false/></dict>
</dict>
</plist>
)")
                   .read();
  ASSERT_TRUE(plist.ok()) << plist.error();
  ASSERT_EQ(plist->dict.size(), 5u);
  EXPECT_EQ(plist->find("s")->text, "a & <b>");
  EXPECT_EQ(plist->find("empty")->text, "");
  EXPECT_TRUE(plist->find("t")->boolean);
  ASSERT_EQ(plist->find("list")->array.size(), 2u);
  EXPECT_EQ(plist->find("list")->array[1].kind, PlistValue::Kind::integer);
  EXPECT_FALSE(plist->find("nested")->find("f")->boolean);
  EXPECT_EQ(plist->find("nested")->find("f")->kind, PlistValue::Kind::boolean);
}

// --- The generated files ----------------------------------------------------------

std::string readText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream content;
  content << in.rdbuf();
  return content.str();
}

std::string generated(const char* name) {
  return readText(std::string(PALVIN_GENERATED_DIR) + "/" + name);
}

PlistValue parsed(const char* name) {
  std::string text = generated(name);
  auto plist = PlistReader(text).read();
  if (!plist.ok()) {
    ADD_FAILURE() << name << ": " << plist.error();
    return {};
  }
  EXPECT_EQ(plist->kind, PlistValue::Kind::dict) << name;
  return *plist;
}

std::string stringAt(const PlistValue& dict, std::string_view key) {
  const PlistValue* value = dict.find(key);
  if (value == nullptr || value->kind != PlistValue::Kind::string)
    return "<no string " + std::string(key) + ">";
  return value->text;
}

TEST(Bundle, GeneratedFilesHaveNoPlaceholdersLeft) {
  // CMake configures the Info.plist once more for the bundle, so a "${" would
  // be substituted there too.
  const std::regex placeholder(R"(@[A-Za-z_]+@|\$\{)");
  for (const char* name : {"PalvinFinder-Info.plist", "PalvinFinder.entitlements"}) {
    std::string text = generated(name);
    ASSERT_FALSE(text.empty()) << name;
    EXPECT_FALSE(std::regex_search(text, placeholder)) << name;
  }
}

TEST(Bundle, InfoPlistDeclaresAFinderSyncExtensionWithOurIdentifiers) {
  PlistValue info = parsed("PalvinFinder-Info.plist");
  EXPECT_EQ(stringAt(info, "CFBundleIdentifier"), ids::kExtensionBundleIdentifier);
  EXPECT_EQ(stringAt(info, "CFBundleExecutable"), "PalvinFinder");
  EXPECT_EQ(stringAt(info, "CFBundlePackageType"), "XPC!");
  EXPECT_EQ(stringAt(info, "CFBundleInfoDictionaryVersion"), "6.0");
  EXPECT_EQ(stringAt(info, "CFBundleShortVersionString"), ids::kVersion);
  EXPECT_EQ(stringAt(info, "CFBundleVersion"), ids::kVersion);
  EXPECT_EQ(stringAt(info, "LSMinimumSystemVersion"), "12.0");
  for (const char* key : {"CFBundleName", "CFBundleDisplayName", "CFBundleDevelopmentRegion"}) {
    EXPECT_NE(info.find(key), nullptr) << key;
  }

  const PlistValue* extension = info.find("NSExtension");
  ASSERT_NE(extension, nullptr);
  ASSERT_EQ(extension->kind, PlistValue::Kind::dict);
  EXPECT_EQ(stringAt(*extension, "NSExtensionPointIdentifier"), "com.apple.FinderSync");
  EXPECT_EQ(stringAt(*extension, "NSExtensionPrincipalClass"), "PalvinFinder.FinderSync");
}

// The runtime looks a "Module.Class" name up by its Swift mangled form, so the
// shell's class must carry exactly that runtime name.
TEST(Bundle, PrincipalClassIsTheRuntimeNameOfTheShellsClass) {
  PlistValue info = parsed("PalvinFinder-Info.plist");
  const PlistValue* extension = info.find("NSExtension");
  ASSERT_NE(extension, nullptr);
  std::string principal = stringAt(*extension, "NSExtensionPrincipalClass");
  std::size_t dot = principal.find('.');
  ASSERT_NE(dot, std::string::npos) << principal;
  std::string module = principal.substr(0, dot);
  std::string className = principal.substr(dot + 1);
  EXPECT_EQ(module, stringAt(info, "CFBundleExecutable"));

  std::string mangled =
      "_TtC" + std::to_string(module.size()) + module + std::to_string(className.size()) + className;
  std::string shell = readText(std::string(PALVIN_SOURCE_DIR) + "/src/platform/apple/FinderSync.mm");
  EXPECT_NE(shell.find("objc_runtime_name(\"" + mangled + "\")"), std::string::npos) << mangled;
  EXPECT_NE(shell.find("@interface " + className + " : FIFinderSync"), std::string::npos) << className;
}

TEST(Bundle, EntitlementsAreExactlyTheSandboxAndAppGroupOnes) {
  PlistValue entitlements = parsed("PalvinFinder.entitlements");
  std::vector<std::string> keys;
  for (const auto& [key, value] : entitlements.dict) keys.push_back(key);
  EXPECT_EQ(keys, (std::vector<std::string>{
                      "com.apple.application-identifier", "com.apple.developer.team-identifier",
                      "com.apple.security.app-sandbox", "com.apple.security.application-groups",
                      "com.apple.security.files.user-selected.read-only"}));

  EXPECT_EQ(stringAt(entitlements, "com.apple.application-identifier"),
            std::string(ids::kTeamId) + "." + std::string(ids::kExtensionBundleIdentifier));
  EXPECT_EQ(stringAt(entitlements, "com.apple.application-identifier"), ids::kApplicationIdentifier);
  EXPECT_EQ(stringAt(entitlements, "com.apple.developer.team-identifier"), ids::kTeamId);

  for (const char* flag :
       {"com.apple.security.app-sandbox", "com.apple.security.files.user-selected.read-only"}) {
    const PlistValue* value = entitlements.find(flag);
    ASSERT_NE(value, nullptr) << flag;
    EXPECT_EQ(value->kind, PlistValue::Kind::boolean) << flag;
    EXPECT_TRUE(value->boolean) << flag;
  }

  const PlistValue* groups = entitlements.find("com.apple.security.application-groups");
  ASSERT_NE(groups, nullptr);
  ASSERT_EQ(groups->kind, PlistValue::Kind::array);
  ASSERT_EQ(groups->array.size(), 1u);
  EXPECT_EQ(groups->array[0].kind, PlistValue::Kind::string);
  EXPECT_EQ(groups->array[0].text, ids::kAppGroupIdentifier);
}

}  // namespace
}  // namespace palvin
