#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "planner/display_order.h"
#include "planner/menu_planner.h"

namespace palvin {
namespace {

using FinderMenuPlanner::CategoryGroup;
using FinderMenuPlanner::FileInput;
using FinderMenuPlanner::Plan;
using FinderMenuPlanner::TargetItem;

using Env = std::map<std::string, std::string>;

// Sets the locale variables for one test and puts the previous values back.
class LocaleScope {
 public:
  explicit LocaleScope(const Env& values) {
    for (const char* name : kNames) {
      const char* old = std::getenv(name);
      saved_[name] = old ? std::optional<std::string>(old) : std::nullopt;
      unsetenv(name);
    }
    for (const auto& [name, value] : values) setenv(name.c_str(), value.c_str(), 1);
  }
  ~LocaleScope() {
    for (const auto& [name, value] : saved_) {
      if (value) {
        setenv(name.c_str(), value->c_str(), 1);
      } else {
        unsetenv(name.c_str());
      }
    }
  }

 private:
  static constexpr const char* kNames[] = {"LC_ALL", "LC_COLLATE", "LANG"};
  std::map<std::string, std::optional<std::string>> saved_;
};

// The catalogue that the worked examples of the menu plan share.
FinderCapabilities sampleCatalogue() {
  FinderCapabilities c;
  c.schemaVersion = 1;
  c.categories = {{"image", "Images", "photo"},
                  {"document", "Documents", "doc.text"},
                  {"video", "Video", "film"},
                  {"audio", "Audio", "waveform"}};
  c.formats = {{"png", "PNG", "image", "png"},           {"jpeg", "JPEG", "image", "jpg"},
               {"heic", "HEIC", "image", "heic"},        {"webp", "WebP", "image", "webp"},
               {"gif", "GIF", "image", "gif"},           {"pdf", "PDF", "document", "pdf"},
               {"txt", "Plain Text", "document", "txt"}, {"mov", "MOV", "video", "mov"},
               {"mp4", "MP4", "video", "mp4"},           {"wav", "WAV", "audio", "wav"},
               {"mp3", "MP3", "audio", "mp3"},           {"ogg", "OGG", "sound", "ogg"}};
  c.extensionToFormatId = {{"png", "png"},   {"jpg", "jpeg"}, {"jpeg", "jpeg"},
                           {"heic", "heic"}, {"pdf", "pdf"},  {"txt", "txt"},
                           {"mov", "mov"},   {"wav", "wav"},  {"tga", "tga"}};
  c.conversions = {{"png", {"jpeg", "webp", "pdf", "heic", "png"}},
                   {"jpeg", {"png", "webp", "pdf", "tiff"}},
                   {"heic", {"png", "jpeg"}},
                   {"pdf", {"png", "jpeg", "txt"}},
                   {"mov", {"mp4", "gif", "mp3", "wav"}},
                   {"wav", {"mp3", "ogg"}},
                   {"tga", {"png", "jpeg"}}};
  return c;
}

const TargetItem kPng{"png", "PNG"}, kJpeg{"jpeg", "JPEG"}, kHeic{"heic", "HEIC"}, kWebp{"webp", "WebP"},
    kGif{"gif", "GIF"}, kPdf{"pdf", "PDF"}, kMp4{"mp4", "MP4"}, kWav{"wav", "WAV"}, kMp3{"mp3", "MP3"};

CategoryGroup images(std::vector<TargetItem> targets) {
  return {"image", "Images", "photo", std::move(targets)};
}
CategoryGroup documents(std::vector<TargetItem> targets) {
  return {"document", "Documents", "doc.text", std::move(targets)};
}
CategoryGroup audio(std::vector<TargetItem> targets) {
  return {"audio", "Audio", "waveform", std::move(targets)};
}

struct PlanCase {
  const char* name;
  std::vector<FileInput> inputs;
  std::optional<Plan> expected;
};

class MenuPlannerTest : public ::testing::Test {
 protected:
  LocaleScope locale_{Env{{"LC_ALL", "C"}}};
  FinderCapabilities catalogue_ = sampleCatalogue();

  void expectCases(const std::vector<PlanCase>& cases) {
    for (const PlanCase& c : cases) {
      SCOPED_TRACE(c.name);
      EXPECT_EQ(FinderMenuPlanner::plan(catalogue_, c.inputs), c.expected);
    }
  }
};

TEST_F(MenuPlannerTest, WorkedExamples) {
  expectCases({
      {"one PNG file",
       {{"/u/a.png", "png"}},
       Plan{{{"/u/a.png", "png"}}, {kHeic, kJpeg, kWebp}, {documents({kPdf})}}},
      {"PNG and JPG",
       {{"/u/a.png", "png"}, {"/u/b.jpg", "jpg"}},
       Plan{{{"/u/a.png", "png"}, {"/u/b.jpg", "jpeg"}}, {kWebp}, {documents({kPdf})}}},
      {"PNG and PDF nest the selection's own category",
       {{"/u/a.png", "png"}, {"/u/c.pdf", "pdf"}},
       Plan{{{"/u/a.png", "png"}, {"/u/c.pdf", "pdf"}}, {}, {images({kJpeg})}}},
      {"MOV groups follow category order, not labels",
       {{"/u/m.mov", "mov"}},
       Plan{{{"/u/m.mov", "mov"}}, {kMp4}, {images({kGif}), audio({kMp3, kWav})}}},
      {"WAV: a target in an unlisted category is offered nowhere",
       {{"/u/w.wav", "wav"}},
       Plan{{{"/u/w.wav", "wav"}}, {kMp3}, {}}},
      {"HEIC", {{"/u/h.heic", "heic"}}, Plan{{{"/u/h.heic", "heic"}}, {kJpeg, kPng}, {}}},
      {"PNG and TGA: an unlisted source format has no category",
       {{"/u/a.png", "png"}, {"/u/t.tga", "tga"}},
       Plan{{{"/u/a.png", "png"}, {"/u/t.tga", "tga"}}, {kJpeg}, {}}},
      {"TGA alone has no source category",
       {{"/u/t.tga", "tga"}},
       Plan{{{"/u/t.tga", "tga"}}, {}, {images({kJpeg, kPng})}}},
      {"TXT has no conversions", {{"/u/t.txt", "txt"}}, std::nullopt},
      {"PNG and WAV share no target", {{"/u/a.png", "png"}, {"/u/w.wav", "wav"}}, std::nullopt},
      {"one unknown extension withholds the menu", {{"/u/a.png", "png"}, {"/u/z.zip", "zip"}}, std::nullopt},
      {"extensions are not case-folded", {{"/u/A.PNG", "PNG"}}, std::nullopt},
      {"the same path twice",
       {{"/u/a.png", "png"}, {"/u/a.png", "png"}},
       Plan{{{"/u/a.png", "png"}, {"/u/a.png", "png"}}, {kHeic, kJpeg, kWebp}, {documents({kPdf})}}},
      {"empty selection", {}, std::nullopt},
      {"file without extension", {{"/u/README", ""}}, std::nullopt},
  });
}

TEST_F(MenuPlannerTest, EmptyMapsGiveNoPlan) {
  catalogue_.extensionToFormatId.clear();
  expectCases({{"empty extensionToFormatId", {{"/u/a.png", "png"}}, std::nullopt}});
  catalogue_ = sampleCatalogue();
  catalogue_.conversions.clear();
  expectCases({{"empty conversions", {{"/u/a.png", "png"}}, std::nullopt}});
}

TEST_F(MenuPlannerTest, EmptyExtensionIsAnOrdinaryKey) {
  catalogue_.extensionToFormatId[""] = "png";
  expectCases({{"no extension mapped to png",
                {{"/u/README", ""}},
                Plan{{{"/u/README", "png"}}, {kHeic, kJpeg, kWebp}, {documents({kPdf})}}}});
}

TEST_F(MenuPlannerTest, EmptyCategoriesKeepOnlyInlineTargets) {
  catalogue_.categories.clear();
  expectCases({
      {"PNG", {{"/u/a.png", "png"}}, Plan{{{"/u/a.png", "png"}}, {kHeic, kJpeg, kWebp}, {}}},
      {"PNG and PDF", {{"/u/a.png", "png"}, {"/u/c.pdf", "pdf"}}, std::nullopt},
  });
}

TEST_F(MenuPlannerTest, EmptyFormatsOfferNothing) {
  catalogue_.formats.clear();
  expectCases({
      {"PNG", {{"/u/a.png", "png"}}, std::nullopt},
      {"MOV", {{"/u/m.mov", "mov"}}, std::nullopt},
      {"TGA", {{"/u/t.tga", "tga"}}, std::nullopt},
  });
}

TEST_F(MenuPlannerTest, RepeatedFormatIdTakesFirstEntry) {
  catalogue_.formats.push_back({"jpeg", "Joint Photographic", "document", "jpe"});
  expectCases({
      {"as target",
       {{"/u/a.png", "png"}},
       Plan{{{"/u/a.png", "png"}}, {kHeic, kJpeg, kWebp}, {documents({kPdf})}}},
      // The source category also comes from the first entry: image, so PNG and
      // WebP stand inline and the dangling tiff is dropped.
      {"as source", {{"/u/b.jpg", "jpg"}}, Plan{{{"/u/b.jpg", "jpeg"}}, {kPng, kWebp}, {documents({kPdf})}}},
  });
}

TEST_F(MenuPlannerTest, RepeatedCategoryTakesFirstEntryAndPosition) {
  // Listed again after audio: with the later entry, Audio would come first.
  catalogue_.categories.push_back({"image", "Pictures", "camera"});
  expectCases({{"MOV",
                {{"/u/m.mov", "mov"}},
                Plan{{{"/u/m.mov", "mov"}}, {kMp4}, {images({kGif}), audio({kMp3, kWav})}}}});
}

TEST_F(MenuPlannerTest, RepeatedConversionEntriesCountOnce) {
  catalogue_.conversions["png"] = {"jpeg", "jpeg", "pdf", "webp", "pdf", "heic"};
  expectCases({{"PNG",
                {{"/u/a.png", "png"}},
                Plan{{{"/u/a.png", "png"}}, {kHeic, kJpeg, kWebp}, {documents({kPdf})}}}});
}

TEST_F(MenuPlannerTest, UnlistedSourceCategoryStillStandsInline) {
  catalogue_.formats.push_back({"flac", "FLAC", "sound", "flac"});
  catalogue_.extensionToFormatId["ogg"] = "ogg";
  catalogue_.conversions["ogg"] = {"flac", "wav", "ogg", "tiff"};
  expectCases(
      {{"OGG", {{"/u/o.ogg", "ogg"}}, Plan{{{"/u/o.ogg", "ogg"}}, {{"flac", "FLAC"}}, {audio({kWav})}}}});
}

TEST_F(MenuPlannerTest, OnlyDanglingTargetsGiveNoPlan) {
  catalogue_.conversions["png"] = {"tiff", "bmp", "png"};
  expectCases({{"PNG", {{"/u/a.png", "png"}}, std::nullopt}});
}

TEST_F(MenuPlannerTest, NamesThatCompareTheSameStandTogetherByFormatId) {
  catalogue_.formats.insert(catalogue_.formats.begin(), {{"foo2", "foo", "image", ""},
                                                         {"zz", "zebra", "image", ""},
                                                         {"foo1", "Foo", "image", ""},
                                                         {"bar", "bar", "image", ""},
                                                         {"foo0", "FOO", "image", ""}});
  catalogue_.conversions["heic"] = {"zz", "foo2", "foo1", "bar", "foo0", "png"};
  expectCases(
      {{"HEIC",
        {{"/u/h.heic", "heic"}},
        Plan{{{"/u/h.heic", "heic"}},
             {{"bar", "bar"}, {"foo0", "FOO"}, {"foo1", "Foo"}, {"foo2", "foo"}, kPng, {"zz", "zebra"}},
             {}}}});
}

TEST_F(MenuPlannerTest, TargetsFollowTheCurrentLocalesOrder) {
  catalogue_.formats.insert(
      catalogue_.formats.begin(),
      {{"zebra", "Zebra", "image", ""}, {"orn", "Örn", "image", ""}, {"oak", "Oak", "image", ""}});
  catalogue_.conversions["heic"] = {"zebra", "orn", "oak"};
  const std::vector<FileInput> heic{{"/u/h.heic", "heic"}};
  const TargetItem oak{"oak", "Oak"}, orn{"orn", "Örn"}, zebra{"zebra", "Zebra"};
  EXPECT_EQ(FinderMenuPlanner::plan(catalogue_, heic)->inlineTargets,
            (std::vector<TargetItem>{oak, orn, zebra}));
  LocaleScope swedish(Env{{"LC_ALL", "sv_SE.UTF-8"}});
  EXPECT_EQ(FinderMenuPlanner::plan(catalogue_, heic)->inlineTargets,
            (std::vector<TargetItem>{oak, zebra, orn}));
}

// Random catalogues, some of them inconsistent, checked against the
// invariants of every plan and against a plain search over the lists.
TEST(MenuPlannerProperty, RandomCataloguesKeepThePlanInvariants) {
  LocaleScope locale(Env{{"LC_ALL", "C"}});
  std::mt19937 random(20240611);
  auto pick = [&random](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
  const std::vector<std::string> names{"Alpha", "alpha", "Beta", "beta", "Éclair", "eclair", "Zulu", "Omega"};
  int plans = 0;
  int mixedPlans = 0;
  for (int round = 0; round < 2000; ++round) {
    FinderCapabilities c;
    const int categoryCount = pick(6);
    for (int i = 0; i < categoryCount; ++i) {
      const std::string id = "c" + std::to_string(pick(5));
      c.categories.push_back({id, "Label " + std::to_string(i), "icon" + std::to_string(i)});
    }
    const int formatCount = pick(6) == 0 ? pick(3) : 6 + pick(10);
    for (int i = 0; i < formatCount; ++i) {
      c.formats.push_back({"f" + std::to_string(pick(10)), names[static_cast<size_t>(pick(8))],
                           "c" + std::to_string(pick(5)), ""});
    }
    for (int e = 0; e < 6; ++e) {
      if (pick(5) != 0) c.extensionToFormatId["e" + std::to_string(e)] = "f" + std::to_string(pick(10));
    }
    for (int f = 0; f < 10; ++f) {
      if (pick(6) == 0) continue;
      std::vector<std::string>& targets = c.conversions["f" + std::to_string(f)];
      const int n = pick(16);
      for (int i = 0; i < n; ++i) targets.push_back("f" + std::to_string(pick(10)));
    }
    std::vector<FileInput> inputs;
    const int fileCount = pick(8) == 0 ? 0 : 1 + pick(3);
    for (int i = 0; i < fileCount; ++i) {
      inputs.push_back({"/p/" + std::to_string(i), "e" + std::to_string(pick(pick(8) == 0 ? 7 : 3))});
    }
    SCOPED_TRACE("round " + std::to_string(round));

    // The oracle: linear searches over the catalogue's lists.
    auto firstFormat = [&c](const std::string& id) -> const FinderCapabilities::Format* {
      for (const auto& f : c.formats) {
        if (f.id == id) return &f;
      }
      return nullptr;
    };
    auto firstCategory = [&c](const std::string& id) -> std::optional<size_t> {
      for (size_t i = 0; i < c.categories.size(); ++i) {
        if (c.categories[i].id == id) return i;
      }
      return std::nullopt;
    };
    std::vector<std::string> sources;
    bool allKnown = !inputs.empty();
    for (const auto& in : inputs) {
      auto it = c.extensionToFormatId.find(in.ext);
      if (it == c.extensionToFormatId.end()) {
        allKnown = false;
        break;
      }
      sources.push_back(it->second);
    }
    std::set<std::string> sourceCategories;
    for (const auto& s : sources) {
      if (const auto* f = firstFormat(s)) sourceCategories.insert(f->category);
    }
    const std::optional<std::string> sourceCategory =
        sourceCategories.size() == 1 ? std::optional(*sourceCategories.begin()) : std::nullopt;
    std::set<std::string> offerable;
    if (allKnown) {
      for (int t = 0; t < 10; ++t) {
        const std::string id = "f" + std::to_string(t);
        bool everywhere = true;
        for (const auto& s : sources) {
          const auto conv = c.conversions.find(s);
          everywhere = everywhere && conv != c.conversions.end() &&
                       std::find(conv->second.begin(), conv->second.end(), id) != conv->second.end() &&
                       std::find(sources.begin(), sources.end(), id) == sources.end();
        }
        const auto* format = firstFormat(id);
        if (everywhere && format != nullptr &&
            (format->category == sourceCategory || firstCategory(format->category))) {
          offerable.insert(id);
        }
      }
    }

    const std::optional<Plan> result = FinderMenuPlanner::plan(c, inputs);
    ASSERT_EQ(result.has_value(), !offerable.empty());
    if (!result) continue;
    ++plans;
    if (!result->inlineTargets.empty() && !result->groups.empty()) ++mixedPlans;
    ASSERT_EQ(result->files.size(), inputs.size());
    for (size_t i = 0; i < inputs.size(); ++i) {
      EXPECT_EQ(result->files[i], (FinderFileRef{inputs[i].path, sources[i]}));
    }
    EXPECT_FALSE(result->inlineTargets.empty() && result->groups.empty());

    std::set<std::string> offered;
    auto checkList = [&](const std::vector<TargetItem>& targets, const std::string& category) {
      EXPECT_FALSE(targets.empty());
      for (size_t i = 0; i < targets.size(); ++i) {
        const TargetItem& t = targets[i];
        EXPECT_TRUE(offered.insert(t.formatId).second) << t.formatId << " offered twice";
        EXPECT_EQ(std::count(sources.begin(), sources.end(), t.formatId), 0) << t.formatId;
        const auto* format = firstFormat(t.formatId);
        ASSERT_NE(format, nullptr);
        EXPECT_EQ(t.displayName, format->displayName);
        EXPECT_EQ(format->category, category);
        if (i > 0) {
          const int order = compareDisplayNames(targets[i - 1].displayName, t.displayName);
          EXPECT_TRUE(order < 0 || (order == 0 && targets[i - 1].formatId < t.formatId));
        }
      }
    };
    if (!result->inlineTargets.empty()) {
      ASSERT_TRUE(sourceCategory.has_value());
      checkList(result->inlineTargets, *sourceCategory);
    }
    std::optional<size_t> previousPosition;
    for (const CategoryGroup& g : result->groups) {
      EXPECT_NE(std::optional(g.id), sourceCategory);
      const auto position = firstCategory(g.id);
      ASSERT_TRUE(position.has_value());
      EXPECT_EQ(g.label, c.categories[*position].label);
      EXPECT_EQ(g.icon, c.categories[*position].icon);
      if (previousPosition) {
        EXPECT_LT(*previousPosition, *position);
      }
      previousPosition = position;
      checkList(g.targets, g.id);
    }
    EXPECT_EQ(offered, offerable);
  }
  // The generator must exercise plans, not only refusals.
  std::printf("%d plans, %d with inline targets and groups\n", plans, mixedPlans);
  EXPECT_GT(plans, 300);
  EXPECT_GT(mixedPlans, 50);
}

TEST(DisplayOrder, CurrentLocaleFromEnvironment) {
  struct Case {
    Env env;
    const char* expected;
  };
  const std::vector<Case> cases{
      {{}, "root"},
      {{{"LC_ALL", "C"}}, "root"},
      {{{"LC_ALL", "POSIX"}, {"LANG", "de_DE"}}, "root"},
      {{{"LC_ALL", "C.UTF-8"}}, "root"},
      {{{"LANG", "de_DE.UTF-8"}}, "de_DE"},
      {{{"LC_ALL", ""}, {"LC_COLLATE", "sv_SE.UTF-8"}, {"LANG", "de_DE"}}, "sv_SE"},
      {{{"LC_ALL", "fr_CA"}, {"LC_COLLATE", "sv_SE"}}, "fr_CA"},
      {{{"LANG", "de_DE@euro"}}, "de_DE"},
      {{{"LANG", "sr_RS.UTF-8@latin"}}, "sr_RS"},
  };
  for (const Case& c : cases) {
    LocaleScope scope(c.env);
    EXPECT_EQ(currentCollationLocale(), c.expected) << (c.env.empty() ? "" : c.env.begin()->second);
  }
}

TEST(DisplayOrder, CaseInsensitiveAccentSensitive) {
  LocaleScope scope(Env{{"LC_ALL", "C"}});
  EXPECT_EQ(compareDisplayNames("Foo", "foo"), 0);
  EXPECT_EQ(compareDisplayNames("PLAIN TEXT", "plain text"), 0);
  EXPECT_LT(compareDisplayNames("apple", "Banana"), 0);  // byte order would put "B" first
  EXPECT_LT(compareDisplayNames("e", "é"), 0);
  EXPECT_LT(compareDisplayNames("é", "f"), 0);
  EXPECT_LT(compareDisplayNames("E", "é"), 0);
  EXPECT_EQ(compareDisplayNames("é", "e\xCC\x81"), 0);  // composed and decomposed accent
  EXPECT_GT(compareDisplayNames("WebP", "JPEG"), 0);
}

TEST(DisplayOrder, SwedishOrdersDiffersFromRoot) {
  {
    LocaleScope scope(Env{{"LC_ALL", "C"}});
    EXPECT_LT(compareDisplayNames("ö", "z"), 0);
    EXPECT_LT(compareDisplayNames("o", "ö"), 0);
    EXPECT_LT(compareDisplayNames("ö", "p"), 0);
  }
  {
    LocaleScope scope(Env{{"LC_ALL", "sv_SE.UTF-8"}});
    EXPECT_LT(compareDisplayNames("z", "ö"), 0);
    EXPECT_EQ(compareDisplayNames("Ö", "ö"), 0);
  }
  {
    // A locale without collation data behaves as the root locale.
    LocaleScope scope(Env{{"LC_ALL", "xx_YY"}});
    EXPECT_LT(compareDisplayNames("ö", "z"), 0);
  }
}

TEST(ExtensionForPath, Table) {
  struct Case {
    const char* path;
    const char* ext;
  };
  const std::vector<Case> cases{
      {"/a/B.PNG", "png"},
      {"/a/archive.tar.GZ", "gz"},
      {"/a/noext", ""},
      {"/a.b/noext", ""},
      {"/a/x.", ""},
      {"/a/.hidden", ""},
      {"/a/.hidden.TXT", "txt"},
      {"/a/x..Tiff", "tiff"},
      {"/a/bundle.App/", "app"},
      {"/a/bundle.App//", "app"},
      {"relative.Jpg", "jpg"},
      {"/", ""},
      {"", ""},
      {"/a/x.ÄBC", "äbc"},
      {"/a/x.İ", "i\xCC\x87"},          // full mapping: i with combining dot above
      {"/a/x.ΟΔΟΣ", "οδος"},            // final sigma
      {"/a/x.A\xFF\x42", "a\xFF\x62"},  // not UTF-8: only ASCII folds ("B" -> "b")
      {"/a/x.\xC3", "\xC3"},
      {"/a/x.\xC3\x84\xED\xA0\x80Q", "\xC3\x84\xED\xA0\x80q"},  // encoded surrogate is ill-formed
  };
  for (const Case& c : cases) {
    EXPECT_EQ(FinderMenuPlanner::extensionForPath(c.path), c.ext) << c.path;
  }
}

TEST(ExtensionForPath, IgnoresTheUsersLocale) {
  LocaleScope scope(Env{{"LC_ALL", "tr_TR.UTF-8"}});
  EXPECT_EQ(FinderMenuPlanner::extensionForPath("/a/x.TIFİ"), "tifi\xCC\x87");
  EXPECT_EQ(FinderMenuPlanner::extensionForPath("/a/x.ÍCI"), "íci");
}

TEST(ExtensionForPath, FileInputKeepsThePath) {
  EXPECT_EQ(FinderMenuPlanner::fileInputForPath("/Users/a/Photo.HEIC"),
            (FileInput{"/Users/a/Photo.HEIC", "heic"}));
}

}  // namespace
}  // namespace palvin
