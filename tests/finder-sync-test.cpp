#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "finder/finder_sync.h"
#include "requests/request.h"
#include "shared/log.h"
#include "support/fake_platform.h"
#include "support/log_lines.h"

namespace palvin {
namespace {

using testing::FakePlatform;
using testing::ScopedPlatform;
using Tags = std::map<std::int64_t, std::string>;
using Files = std::vector<FinderFileRef>;
using Lines = std::vector<std::string>;

const std::string kCatalogue = "/container/capabilities.json";
const std::string kRequestPrefix = "write /container/requests/";
const std::string kBundle = "/Applications/Palvin.app/Contents/PlugIns/PalvinFinder.appex";
const std::string kDefaultTitle = "Convert using Palvin";
const std::string kFallbackTitle = "Convert with Palvin \xE2\x80\x94 open to set up";
const std::string kLoaded = "[DEBUG] Loaded capabilities: 12 formats, 7 sources";
const std::string kBuiltPng =
    "[INFO] Built Convert menu: 1 file(s), 3 inline target(s), 1 nested categor(ies)";
const std::string kEmptyMenu = "menu \"\"\n";
const Tags kPngTags = {{1, "heic"}, {2, "jpeg"}, {3, "webp"}, {4, "pdf"}};

std::string sampleCatalogue() {
  std::ifstream in(PALVIN_SOURCE_DIR "/examples/capabilities.json");
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// The sample catalogue with a convertMenuTitle given as raw JSON text.
std::string catalogueTitled(const std::string& titleJson) {
  return "{\"convertMenuTitle\": " + titleJson + "," + sampleCatalogue().substr(1);
}

// Every property that differs from a fresh item or menu, one line per item
// ("> submenu" on its item's line, its items indented below), so that whole
// menus compare as text.
std::string heading(const Menu& menu) {
  std::string out = "\"" + menu.title + "\"";
  if (menu.autoenablesItems) out += *menu.autoenablesItems ? " autoenables" : " no-autoenables";
  return out;
}

std::string renderItems(const Menu& menu, const std::string& indent) {
  std::string out;
  for (const MenuItem& item : menu.items) {
    out += indent + (item.isSeparator ? "---" : "\"" + item.title + "\"");
    if (item.action == MenuAction::convertAction) out += " convertAction:";
    if (item.action == MenuAction::openHostApp) out += " openHostApp:";
    if (!item.keyEquivalent.empty()) out += " key=" + item.keyEquivalent;
    if (item.tag != 0) out += " #" + std::to_string(item.tag);
    if (!item.enabled) out += " disabled";
    if (item.image) {
      out += " image(" + item.image->symbolName + ", " + item.image->accessibilityDescription + ", " +
             (item.image->paletteColor == PaletteColor::white ? "white" : "black") + ")";
    }
    if (item.submenu) out += " > " + heading(*item.submenu);
    out += "\n";
    if (item.submenu) out += renderItems(*item.submenu, indent + "  ");
  }
  return out;
}

std::string render(const Menu& menu) {
  return "menu " + heading(menu) + "\n" + renderItems(menu, "  ");
}

// A top menu holding the Convert item, its submenu holding `items`.
std::string convertMenu(const std::string& items, const std::string& title = kDefaultTitle) {
  return "menu \"\"\n  \"" + title + "\" > \"" + title + "\" no-autoenables\n" + items;
}

// clang-format off
std::string pngMenu(const std::string& title = kDefaultTitle,
                    const std::string& documentsImage = " image(doc.text, Documents, black)") {
  return convertMenu("    \"HEIC\" convertAction: #1\n"
                     "    \"JPEG\" convertAction: #2\n"
                     "    \"WebP\" convertAction: #3\n"
                     "    ---\n"
                     "    \"Documents\"" + documentsImage + " > \"Documents\" no-autoenables\n"
                     "      \"PDF\" convertAction: #4\n", title);
}
// clang-format on

// One fake system with the sample catalogue in its container; the controller
// is made on first use so that a case can set the platform up first.
struct World {
  World() { fake.putFile(kCatalogue, sampleCatalogue(), {1795424400, 0}); }
  // The log queue holds on to the platform until its lines are written.
  ~World() { FinderLog::flush(); }

  FinderSync& sync() {
    if (!finder) finder.emplace();
    return *finder;
  }
  Menu menuFor(std::optional<std::vector<std::string>> selection) {
    fake.selection = std::move(selection);
    return sync().menuForMenuKind(0);
  }
  // A new modification date, so that any later load reads the file again.
  void touchCatalogue() {
    fake.putFile(kCatalogue, fake.file(kCatalogue)->content, {1795424400 + ++touches, 0});
  }
  // Log lines written since the last call.
  Lines newLines() {
    Lines all = testing::logLines(fake);
    Lines out(all.begin() + static_cast<std::ptrdiff_t>(seen), all.end());
    seen = all.size();
    return out;
  }
  // Request file names in the order they were written.
  Lines requestNames() const {
    Lines names;
    for (const auto& event : fake.events()) {
      if (event.starts_with(kRequestPrefix)) names.push_back(event.substr(kRequestPrefix.size()));
    }
    return names;
  }
  FakePlatform fake;
  ScopedPlatform scope{fake};
  std::optional<FinderSync> finder;
  std::size_t seen = 0;
  std::int64_t touches = 0;
};

TEST(FinderSyncMenu, WholeMenusOfWorkedExamples) {
  struct Case {
    std::string name;
    Lines selection;
    std::optional<std::string> titleJson;
    bool translated;
    std::string menu;
    Tags tags;
    Files files;
  };
  const Files png = {{"/x/a.png", "png"}};
  // clang-format off
  const std::vector<Case> cases = {
      {"OnePng", {"/x/a.png"}, std::nullopt, false, pngMenu(), kPngTags, png},
      {"Mov", {"/x/clip.mov"}, std::nullopt, false,
       convertMenu("    \"MP4\" convertAction: #1\n"
                   "    ---\n"
                   "    \"Images\" image(photo, Images, black) > \"Images\" no-autoenables\n"
                   "      \"GIF\" convertAction: #2\n"
                   "    \"Audio\" image(waveform, Audio, black) > \"Audio\" no-autoenables\n"
                   "      \"MP3\" convertAction: #3\n"
                   "      \"WAV\" convertAction: #4\n"),
       {{1, "mp4"}, {2, "gif"}, {3, "mp3"}, {4, "wav"}}, {{"/x/clip.mov", "mov"}}},
      {"InlineOnly", {"/x/p.heic"}, std::nullopt, false,
       convertMenu("    \"JPEG\" convertAction: #1\n"
                   "    \"PNG\" convertAction: #2\n"),
       {{1, "jpeg"}, {2, "png"}}, {{"/x/p.heic", "heic"}}},
      {"CategoriesOnly", {"/x/a.png", "/x/b.pdf"}, std::nullopt, false,
       convertMenu("    \"Images\" image(photo, Images, black) > \"Images\" no-autoenables\n"
                   "      \"JPEG\" convertAction: #1\n"),
       {{1, "jpeg"}}, {{"/x/a.png", "png"}, {"/x/b.pdf", "pdf"}}},
      {"TitlePresentWinsOverTranslation", {"/x/a.png"}, "\"Umwandeln \xE2\x86\x92\"", true,
       pngMenu("Umwandeln \xE2\x86\x92"), kPngTags, png},
      {"TitleEmpty", {"/x/a.png"}, "\"\"", true, pngMenu(""), kPngTags, png},
      {"TitleAbsentTranslated", {"/x/a.png"}, std::nullopt, true, pngMenu("Mit Palvin umwandeln"), kPngTags, png},
  };
  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    World w;
    if (c.titleJson) w.fake.putFile(kCatalogue, catalogueTitled(*c.titleJson), {1795424400, 0});
    if (c.translated) w.fake.translations[kDefaultTitle] = "Mit Palvin umwandeln";
    EXPECT_EQ(render(w.menuFor(c.selection)), c.menu);
    EXPECT_EQ(w.sync().targetFormatByTag(), c.tags);
    EXPECT_EQ(w.sync().pendingFiles(), c.files);
  }
}

TEST(FinderSyncMenu, FallbackWithoutCatalogueOpensTheHostAppInFront) {
  for (bool translated : {false, true}) {
    SCOPED_TRACE(translated);
    World w;
    const std::string title = translated ? "Mit Palvin umwandeln \xE2\x80\x94 einrichten" : kFallbackTitle;
    if (translated) w.fake.translations[kFallbackTitle] = title;
    w.menuFor(Lines{"/x/a.png"});
    w.fake.removeFile(kCatalogue);

    EXPECT_EQ(render(w.menuFor(Lines{"/x/a.png"})), "menu \"\"\n  \"" + title + "\" openHostApp:\n");
    EXPECT_EQ(w.sync().targetFormatByTag(), Tags{});
    EXPECT_EQ(w.sync().pendingFiles(), Files{});

    w.newLines();
    w.sync().openHostApp();
    EXPECT_EQ(w.newLines(), Lines{"[INFO] Opening host app from fallback menu item"});
    ASSERT_EQ(w.fake.launches().size(), 1u);
    EXPECT_EQ(w.fake.launches()[0].bundlePath, "/Applications/Palvin.app");
    EXPECT_TRUE(w.fake.launches()[0].configuration.activates);
    EXPECT_EQ(w.requestNames(), Lines{});
    EXPECT_EQ(w.fake.notifications(), Lines{});
  }
}

// Each case follows a MOV menu, so emptied or renumbered state shows, and a
// touched catalogue, so that any load reads and logs.
TEST(FinderSyncMenu, StateAfterEachKindOfSelection) {
  struct Case {
    std::string name;
    std::optional<Lines> selection;
    std::set<std::string> directories;
    std::set<std::string> unknownDirectoryness;
    std::string menu;
    Tags tags;
    Files files;
    Lines lines;
    int reads;
  };
  // clang-format off
  const std::vector<Case> cases = {
      {"NoSelection", std::nullopt, {}, {}, kEmptyMenu, {}, {}, {}, 0},
      {"FoldersOnly", Lines{"/x/d1", "/x/d2"}, {"/x/d1", "/x/d2"}, {}, kEmptyMenu, {}, {}, {}, 0},
      {"FileAndFolder", Lines{"/x/d.png", "/x/a.png"}, {"/x/d.png"}, {}, pngMenu(), kPngTags,
       {{"/x/a.png", "png"}}, {kLoaded, kBuiltPng}, 1},
      {"DirectoryLookupFails", Lines{"/x/u.png"}, {"/x/u.png"}, {"/x/u.png"}, pngMenu(), kPngTags,
       {{"/x/u.png", "png"}}, {kLoaded, kBuiltPng}, 1},
      {"NoPlan", Lines{"/x/a.png", "/x/b.wav", "/x/c.png"}, {}, {}, kEmptyMenu, {}, {},
       {kLoaded, "[DEBUG] No Convert menu for selection of 3 file(s)"}, 1},
      {"UpperCaseExtension", Lines{"/x/A.PNG"}, {}, {}, pngMenu(), kPngTags, {{"/x/A.PNG", "png"}},
       {kLoaded, kBuiltPng}, 1},
      {"NoExtension", Lines{"/x/README"}, {}, {}, kEmptyMenu, {}, {},
       {kLoaded, "[DEBUG] No Convert menu for selection of 1 file(s)"}, 1},
  };
  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    World w;
    w.menuFor(Lines{"/x/clip.mov"});
    w.touchCatalogue();
    w.fake.directories.insert(c.directories.begin(), c.directories.end());
    w.fake.unknownDirectoryness = c.unknownDirectoryness;
    const int readsBefore = w.fake.fileReads();
    w.newLines();

    EXPECT_EQ(render(w.menuFor(c.selection)), c.menu);
    EXPECT_EQ(w.sync().targetFormatByTag(), c.tags);
    EXPECT_EQ(w.sync().pendingFiles(), c.files);
    EXPECT_EQ(w.newLines(), c.lines);
    EXPECT_EQ(w.fake.fileReads() - readsBefore, c.reads);
  }
}

// Other menu kinds and the observation and badge callbacks: a touched
// catalogue would show any load.
TEST(FinderSyncMenu, CallsThatChangeNothing) {
  World w;
  w.menuFor(Lines{"/x/a.png"});
  w.touchCatalogue();
  w.newLines();
  const int reads = w.fake.fileReads();
  const auto events = w.fake.events();
  for (std::uint64_t kind : {1u, 2u, 3u, 99u}) {
    SCOPED_TRACE(kind);
    EXPECT_EQ(render(w.sync().menuForMenuKind(kind)), kEmptyMenu);
  }
  w.sync().beginObservingDirectoryAtURL("/x");
  w.sync().endObservingDirectoryAtURL("/x");
  w.sync().requestBadgeIdentifierForURL("/x/a.png");
  EXPECT_EQ(w.sync().targetFormatByTag(), kPngTags);
  EXPECT_EQ(w.sync().pendingFiles(), (Files{{"/x/a.png", "png"}}));
  EXPECT_EQ(w.newLines(), Lines{});
  EXPECT_EQ(w.fake.fileReads(), reads);
  EXPECT_EQ(w.fake.events(), events);
  EXPECT_EQ(w.fake.monitoredHistory().size(), 1u);
}

// One controller for all rows: the appearance must be read on every build.
TEST(FinderSyncMenu, CategoryImagesFollowTheAppearance) {
  World w;
  const std::vector<std::pair<std::optional<std::string>, std::string>> rows = {
      {"dark", "white"}, {"Light", "black"}, {"DARK", "white"},  {std::nullopt, "black"},
      {"Dark", "white"}, {"", "black"},      {"Darker", "black"}};
  for (const auto& [style, tint] : rows) {
    SCOPED_TRACE(style.value_or("(absent)"));
    w.fake.defaults.erase("AppleInterfaceStyle");
    if (style) w.fake.defaults["AppleInterfaceStyle"] = *style;
    EXPECT_EQ(render(w.menuFor(Lines{"/x/a.png"})),
              pngMenu(kDefaultTitle, " image(doc.text, Documents, " + tint + ")"));
  }
  w.fake.symbols.erase("doc.text");
  EXPECT_EQ(render(w.menuFor(Lines{"/x/a.png"})), pngMenu(kDefaultTitle, ""));
  EXPECT_EQ(w.sync().targetFormatByTag(), kPngTags);
}

TEST(FinderSyncActions, PicksSendTheTargetWithAllFilesInPlanOrder) {
  World w;
  const Files files = {{"/x/b.png", "png"}, {"/x/a.png", "png"}};
  w.menuFor(Lines{"/x/b.png", "/x/a.png"});
  w.newLines();
  w.sync().convertAction(3);
  w.sync().convertAction(3);

  const Lines names = w.requestNames();
  ASSERT_EQ(names.size(), 2u);
  for (const auto& name : names) {
    auto request = FinderConversionRequest::decode(w.fake.file("/container/requests/" + name)->content);
    ASSERT_TRUE(request.ok()) << request.error();
    EXPECT_EQ(*request, (FinderConversionRequest{"webp", files}));
  }
  const std::string chose = "[INFO] User chose webp for 2 file(s)";
  EXPECT_EQ(w.newLines(),
            (Lines{chose, "[INFO] Wrote request " + names[0] + ": 2 file(s) \xE2\x86\x92 webp", chose,
                   "[INFO] Wrote request " + names[1] + ": 2 file(s) \xE2\x86\x92 webp"}));
  EXPECT_EQ(w.sync().targetFormatByTag(), kPngTags);
  EXPECT_EQ(w.sync().pendingFiles(), files);
  ASSERT_EQ(w.fake.launches().size(), 2u);
  EXPECT_FALSE(w.fake.launches()[1].configuration.activates);
}

TEST(FinderSyncActions, StalePicksSendNothing) {
  struct Case {
    std::string name;
    std::vector<std::optional<Lines>> menusBefore;  // selections of earlier builds
    bool removeCatalogueBeforeLast;
    std::int64_t tag;
  };
  const std::optional<Lines> png = Lines{"/x/a.png"};
  // clang-format off
  const std::vector<Case> cases = {
      {"BeforeAnyMenu", {}, false, 1},
      {"TagZero", {png}, false, 0},
      {"UnknownTag", {png}, false, 5},
      {"NegativeTag", {png}, false, -2},
      {"AfterEmptySelection", {png, std::nullopt}, false, 1},
      {"AfterNoPlan", {png, Lines{"/x/a.txt"}}, false, 1},
      {"AfterFallback", {png, png}, true, 1},
  };
  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    World w;
    w.sync();
    for (std::size_t i = 0; i < c.menusBefore.size(); ++i) {
      if (c.removeCatalogueBeforeLast && i + 1 == c.menusBefore.size()) w.fake.removeFile(kCatalogue);
      w.menuFor(c.menusBefore[i]);
    }
    w.newLines();
    w.sync().convertAction(c.tag);
    EXPECT_EQ(w.newLines(), Lines{"[WARN] convertAction: stale menu state for tag " + std::to_string(c.tag)});
    EXPECT_EQ(w.requestNames(), Lines{});
    EXPECT_TRUE(w.fake.launches().empty());
  }
}

TEST(FinderSyncLifecycle, LaunchRegistersRootAndEachVolumeOnce) {
  struct Case {
    std::string name;
    std::optional<Lines> volumes;
    Lines monitored;
    std::string line;
  };
  // clang-format off
  const std::vector<Case> cases = {
      {"RootAndDuplicateVolume", Lines{"/", "/mnt/a", "/mnt/a"}, {"/", "/mnt/a"}, "[DEBUG] Monitoring 2 directories"},
      {"NoVolumeList", std::nullopt, {"/"}, "[DEBUG] Monitoring 1 directories"},
      {"EmptyVolumeList", Lines{}, {"/"}, "[DEBUG] Monitoring 1 directories"},
  };
  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    World w;
    w.fake.volumes = c.volumes;
    w.sync();
    EXPECT_EQ(w.fake.monitoredHistory(), std::vector<Lines>{c.monitored});
    EXPECT_EQ(w.newLines(), (Lines{"[INFO] FinderSync launched: " + kBundle, c.line}));
  }
}

TEST(FinderSyncLifecycle, MountsRefreshAndDestructionStopsObserving) {
  World w;
  w.fake.volumes = Lines{"/mnt/a"};
  w.sync();
  w.newLines();
  w.fake.volumes->push_back("/mnt/b");
  w.fake.simulateVolumeChange();
  w.fake.volumes->pop_back();
  w.fake.simulateVolumeChange();
  EXPECT_EQ(w.fake.monitoredHistory(),
            (std::vector<Lines>{{"/", "/mnt/a"}, {"/", "/mnt/a", "/mnt/b"}, {"/", "/mnt/a"}}));
  EXPECT_EQ(w.newLines(), (Lines{"[DEBUG] Monitoring 3 directories", "[DEBUG] Monitoring 2 directories"}));

  EXPECT_TRUE(w.fake.observingVolumes());
  w.finder.reset();
  EXPECT_FALSE(w.fake.observingVolumes());
}

TEST(FinderSyncSession, LogFromLaunchToRequest) {
  World w;
  w.menuFor(Lines{"/x/a.png"});
  w.sync().convertAction(2);
  const Lines names = w.requestNames();
  ASSERT_EQ(names.size(), 1u);
  EXPECT_EQ(w.newLines(), (Lines{"[INFO] FinderSync launched: " + kBundle, "[DEBUG] Monitoring 1 directories",
                                 kLoaded, kBuiltPng, "[INFO] User chose jpeg for 1 file(s)",
                                 "[INFO] Wrote request " + names[0] + ": 1 file(s) \xE2\x86\x92 jpeg"}));
}

}  // namespace
}  // namespace palvin
