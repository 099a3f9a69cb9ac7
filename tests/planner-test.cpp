#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "planner/menu_planner.h"
#include "platform/linux_text.h"

namespace palvin {
namespace {

using FinderMenuPlanner::FileInput;
using FinderMenuPlanner::Plan;
using FinderMenuPlanner::TargetItem;

// Every test sets the locale variables it depends on; the others are cleared.
void useLocale(const char* lcAll, const char* lcCollate = nullptr, const char* lang = nullptr) {
  for (auto [name, value] : {std::pair{"LC_ALL", lcAll}, {"LC_COLLATE", lcCollate}, {"LANG", lang}})
    value != nullptr ? setenv(name, value, 1) : unsetenv(name);
}

// Before anything else touches ICU, so a fold that followed the user's locale
// (Turkish: dotless i) would show.
TEST(ExtensionForPath, LastComponentLowerCasedWithoutTheUsersLocale) {
  useLocale("tr_TR.UTF-8");
  // clang-format off
  // Ä, İ (full mapping: i with combining dot above), Í and a final sigma fold; in what is not UTF-8
  // (a stray byte, a cut sequence, an encoded surrogate) only ASCII does.
  for (auto [path, ext] : std::vector<std::pair<const char*, const char*>>{
      {"/a/B.PNG", "png"}, {"/a/archive.tar.GZ", "gz"}, {"/a/noext", ""}, {"/a.b/noext", ""}, {"/a/x.", ""}, {"/", ""},
      {"/a/.hidden", ""}, {"/a/.hidden.TXT", "txt"}, {"/a/x..Tiff", "tiff"}, {"/a/bundle.App/", "app"}, {"", ""},
      {"/a/bundle.App//", "app"}, {"relative.Jpg", "jpg"}, {"/a/x.ÄBC", "äbc"}, {"/a/x.TIFİ", "tifi\xCC\x87"},
      {"/a/x.ÍCI", "íci"}, {"/a/x.ΟΔΟΣ", "οδος"}, {"/a/x.A\xFF\x42", "a\xFF\x62"}, {"/a/x.\xC3", "\xC3"},
      {"/a/x.\xC3\x84\xED\xA0\x80Q", "\xC3\x84\xED\xA0\x80q"}}) {
    // clang-format on
    EXPECT_EQ(FinderMenuPlanner::fileInputForPath(path, *linux_text::currentRules()), (FileInput{path, ext}))
        << path;
  }
}

// Random catalogues, most of them inconsistent, against a plan built by plain
// searches over the catalogue's lists. The shipped catalogue's worked examples
// are the controller's (finder-sync-test) and the tool's explain rows.
TEST(MenuPlanner, RandomCataloguesMatchABruteForcePlan) {
  useLocale("C");
  std::mt19937 random(20240611);
  auto pick = [&random](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
  auto id = [&pick](const char* prefix, int n) { return prefix + std::to_string(pick(n)); };
  const char* names[] = {"Alpha", "alpha", "Beta", "beta", "Éclair", "eclair", "Zulu", "Omega"};
  // An empty extension is a key like any other; "e6" and "E1" are none, as the planner folds nothing.
  const char* exts[] = {"", "e1", "e2", "e3", "e4", "e5", "e6", "E1"};
  int mixedPlans = 0;
  for (int round = 0; round < 2000; ++round) {
    FinderCapabilities c;
    for (int i = pick(6); i > 0; --i) c.categories.push_back({id("c", 5), id("L", 9), id("i", 9)});
    for (int i = pick(16); i > 0; --i) c.formats.push_back({id("f", 10), names[pick(8)], id("c", 5), ""});
    for (int e = 0; e < 6; ++e) c.extensionToFormatId[exts[e]] = id("f", 10);
    for (int i = pick(120); i > 0; --i) c.conversions[id("f", 10)].push_back(id("f", 10));
    std::vector<FileInput> inputs;
    for (int i = 1 + pick(3); i > 0; --i) inputs.push_back({id("/", 9), exts[pick(3 + pick(6))]});

    std::map<std::string, const FinderCapabilities::Format*> formats;  // the first entry of each id
    for (auto f = c.formats.rbegin(); f != c.formats.rend(); ++f) formats[f->id] = &*f;
    Plan p;
    std::set<std::string> categories;
    for (const FileInput& in : inputs) {
      auto found = c.extensionToFormatId.find(in.ext);
      if (found == c.extensionToFormatId.end()) break;
      p.files.push_back({in.path, found->second});
      if (formats.count(found->second)) categories.insert(formats[found->second]->category);
    }
    auto targetsIn = [&](const std::string& category) {
      std::vector<TargetItem> out;
      for (const auto& [target, format] : formats) {
        bool offered = format->category == category;
        for (const FinderFileRef& file : p.files) {
          auto conv = c.conversions.find(file.sourceFormatId);
          offered = offered && file.sourceFormatId != target && conv != c.conversions.end() &&
                    std::count(conv->second.begin(), conv->second.end(), target) > 0;
        }
        if (offered) out.push_back({target, format->displayName});
      }
      // Collected in format id order, so a stable sort leaves equal names in that order.
      std::stable_sort(out.begin(), out.end(), [](const TargetItem& a, const TargetItem& b) {
        return linux_text::currentRules()->compareDisplayNames(a.displayName, b.displayName) < 0;
      });
      return out;
    };
    const auto source = categories.size() == 1 ? std::optional(*categories.begin()) : std::nullopt;
    if (source) p.inlineTargets = targetsIn(*source);
    std::set<std::string> seen;
    for (const auto& category : c.categories) {
      auto targets = targetsIn(category.id);
      if (category.id != source && seen.insert(category.id).second && !targets.empty())
        p.groups.push_back({category.id, category.label, category.icon, targets});
    }
    const bool offers = p.files.size() == inputs.size() && (!p.inlineTargets.empty() || !p.groups.empty());
    ASSERT_EQ(FinderMenuPlanner::plan(c, inputs, *linux_text::currentRules()),
              offers ? std::optional(p) : std::nullopt)
        << round;
    mixedPlans += offers && !p.inlineTargets.empty() && !p.groups.empty();
  }
  EXPECT_GT(mixedPlans, 60) << "the generator must exercise whole plans, not only refusals";
}

TEST(DisplayOrder, LocaleFromTheEnvironmentAndNameOrder) {
  // clang-format off
  for (auto [lcAll, lcCollate, lang, expected] : std::vector<std::array<const char*, 4>>{
           {nullptr, nullptr, nullptr, "root"}, {"C.UTF-8", nullptr, nullptr, "root"}, {"POSIX", nullptr, "de_DE", "root"},
           {nullptr, nullptr, "de_DE.UTF-8", "de_DE"}, {nullptr, nullptr, "de_DE@euro", "de_DE"},
           {"", "sv_SE.UTF-8", "de_DE", "sv_SE"}, {"fr_CA", "sv_SE", nullptr, "fr_CA"}}) {
    useLocale(lcAll, lcCollate, lang);
    EXPECT_EQ(linux_text::currentCollationLocale(), expected) << expected;
  }
  // In table order, so that a collator kept across a locale change shows; xx_YY has no collation data.
  // A precomposed letter equals its decomposition even with the marks out of canonical order.
  for (auto [locale, a, b, order] : std::vector<std::tuple<const char*, const char*, const char*, int>>{
           {"C", "Foo", "foo", 0}, {"C", "apple", "Banana", -1}, {"C", "E", "é", -1}, {"C", "é", "f", -1}, {"C", "ö", "z", -1},
           {"C", "\xE1\xBA\xAD", "a\xCC\x82\xCC\xA3", 0}, {"sv_SE.UTF-8", "z", "ö", -1}, {"sv_SE.UTF-8", "Ö", "ö", 0}, {"xx_YY", "ö", "z", -1}}) {
    // clang-format on
    useLocale(locale);
    EXPECT_EQ(std::clamp(linux_text::currentRules()->compareDisplayNames(a, b), -1, 1), order)
        << locale << ": " << a << " vs " << b;
  }
}

}  // namespace
}  // namespace palvin
