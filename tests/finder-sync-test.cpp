#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "finder/finder_sync.h"
#include "support/fake_platform.h"
#include "support/log_lines.h"
#include "support/temp_dir.h"

namespace palvin {
namespace {

using Tags = std::map<std::int64_t, std::string>;
using Files = std::vector<FinderFileRef>;
using Lines = std::vector<std::string>;

const std::string kTitle = "Convert using Palvin";
const std::string kLoaded = "[DEBUG] Loaded capabilities: 12 formats, 7 sources";
const std::string kBuilt = "[INFO] Built Convert menu: ",
                  kNoPlan = "[DEBUG] No Convert menu for selection of ";
const Tags kPngTags = {{1, "heic"}, {2, "jpeg"}, {3, "webp"}, {4, "pdf"}};
const Tags kMovTags = {{1, "mp4"}, {2, "gif"}, {3, "mp3"}, {4, "wav"}};
const Lines kPng{"/x/a.png"}, kMov{"/x/m.mov"};

// Every property that the extension sets, so that a whole menu compares as
// one line: 'title' [item, item > 'submenu' [...]].
std::string render(const Menu& menu) {
  std::string out = "'" + menu.title + "'";
  if (menu.autoenablesItems) out += *menu.autoenablesItems ? " auto" : " manual";
  for (const MenuItem& item : menu.items) {
    out += (&item == &menu.items.front() ? " [" : ", ") + (item.isSeparator ? "---" : "'" + item.title + "'");
    if (item.action != MenuAction::none)
      out += item.action == MenuAction::convertAction ? " convert" : " open";
    if (item.tag != 0) out += " #" + std::to_string(item.tag);
    if (!item.enabled) out += " disabled";
    if (const auto& image = item.image)
      out += " (" + image->symbolName + ", " + image->accessibilityDescription +
             (image->paletteColor == PaletteColor::white ? ", white)" : ", black)");
    if (item.submenu) out += " > " + render(*item.submenu);
  }
  return out + (menu.items.empty() ? " []" : "]");
}

// The top menu with the Convert item, whose submenu holds `items`.
std::string convertMenu(const std::string& items, const std::string& title = kTitle) {
  return "'' ['" + title + "' > '" + title + "' manual [" + items + "]]";
}

std::string pngMenu(const std::string& title = kTitle, std::string image = " (doc.text, Documents, black)") {
  const std::string documents = "'Documents'" + image + " > 'Documents' manual ['PDF' convert #4]";
  return convertMenu("'HEIC' convert #1, 'JPEG' convert #2, 'WebP' convert #3, ---, " + documents, title);
}

// A fake system with the shipped sample catalogue in its container; the
// controller is made on first use, so that a case can set the platform up first.
struct World {
  World() { putCatalogue("{", 0); }
  // The sample catalogue opened by `head`, dated `date` so that a new date is read again.
  void putCatalogue(const std::string& head, std::int64_t date) {
    fake.putFile("/container/capabilities.json",
                 head + testing::readText(PALVIN_SOURCE_DIR "/examples/capabilities.json").substr(1),
                 {date, 0});
  }
  FinderSync& sync() { return finder ? *finder : finder.emplace(); }
  Menu menuFor(std::optional<Lines> selection, std::uint64_t kind = 0) {
    fake.selection = std::move(selection);
    return sync().menuForMenuKind(kind);
  }
  // Log lines written since the last call.
  Lines newLines() {
    Lines all = testing::logLines(fake);
    all.erase(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(std::exchange(seen, all.size())));
    return all;
  }
  testing::FakePlatform fake;
  ScopedPlatform scope{fake};
  std::optional<FinderSync> finder;
  std::size_t seen = 0;
};

// Each case follows a MOV menu, so kept or renumbered state shows, and a
// touched catalogue, so that any load reads and logs. /dir/ paths are
// folders; the folder lookup of /unknown.png fails.
TEST(FinderSyncMenu, WholeMenuAndStateForEachKindOfSelection) {
  const std::string none = "'' []", images = "'Images' (photo, Images, black) > 'Images' manual [";
  // clang-format off
  for (const auto& [selection, kind, menu, tags, files, lines] :
       std::vector<std::tuple<std::optional<Lines>, std::uint64_t, std::string, Tags, Files, Lines>>{
           {kMov, 0, convertMenu("'MP4' convert #1, ---, " + images + "'GIF' convert #2], 'Audio' (waveform, Audio, black) > "
                                 "'Audio' manual ['MP3' convert #3, 'WAV' convert #4]"), kMovTags, {{"/x/m.mov", "mov"}},
            {kLoaded, kBuilt + "1 file(s), 1 inline target(s), 2 nested categor(ies)"}},
           {Lines{"/x/p.heic"}, 0, convertMenu("'JPEG' convert #1, 'PNG' convert #2"), {{1, "jpeg"}, {2, "png"}},
            {{"/x/p.heic", "heic"}}, {kLoaded, kBuilt + "1 file(s), 2 inline target(s), 0 nested categor(ies)"}},
           {Lines{"/x/a.png", "/x/b.pdf"}, 0, convertMenu(images + "'JPEG' convert #1]"), {{1, "jpeg"}},
            {{"/x/a.png", "png"}, {"/x/b.pdf", "pdf"}}, {kLoaded, kBuilt + "2 file(s), 0 inline target(s), 1 nested categor(ies)"}},
           {Lines{"/dir/d.png", "/unknown.png", "/x/A.PNG"}, 0, pngMenu(), kPngTags, {{"/unknown.png", "png"}, {"/x/A.PNG", "png"}},
            {kLoaded, kBuilt + "2 file(s), 3 inline target(s), 1 nested categor(ies)"}},
           {std::nullopt, 0, none, {}, {}, {}},
           {Lines{"/dir/a", "/dir/b.png"}, 0, none, {}, {}, {}},
           {Lines{"/x/a.png", "/x/b.wav", "/x/c.png"}, 0, none, {}, {}, {kLoaded, kNoPlan + "3 file(s)"}},
           // A request could not name this file: no pick that is sure to fail.
           {Lines{"/x/b.png", "/x/\xFF.png"}, 0, none, {}, {}, {kLoaded, "[WARN] No Convert menu: a selected name is not valid UTF-8: /x/\xEF\xBF\xBD.png"}},
           {kPng, 1, none, kMovTags, {{"/x/m.mov", "mov"}}, {}},   // the folder's own menu
           {kPng, 99, none, kMovTags, {{"/x/m.mov", "mov"}}, {}}}) {  // a kind the platform may add
    // clang-format on
    World w;
    w.menuFor(kMov);
    w.putCatalogue("{", 1);
    w.newLines();  // waits for the log's worker, which also touches the fake's folders
    w.fake.directories = {"/dir/a", "/dir/b.png", "/dir/d.png"};
    w.fake.unknownDirectoryness = {"/unknown.png"};
    SCOPED_TRACE((selection ? selection->back() : "none") + " kind " + std::to_string(kind));
    EXPECT_EQ(render(w.menuFor(selection, kind)), menu);
    EXPECT_EQ(w.sync().targetFormatByTag(), tags);
    EXPECT_EQ(w.sync().pendingFiles(), files);
    EXPECT_EQ(w.newLines(), lines);
  }
}

// One controller for all rows: the appearance must be read on every build.
TEST(FinderSyncMenu, TintFollowsTheAppearanceAndTheTitleTheTranslationOrTheCatalogue) {
  World w;
  w.fake.translations[kTitle] = "Mit Palvin umwandeln";
  // clang-format off
  for (const auto& [style, tint] : std::vector<std::pair<std::optional<std::string>, std::string>>{
           {"dark", "white"}, {"Light", "black"}, {"DARK", "white"}, {std::nullopt, "black"}, {"Darker", "black"}}) {
    // clang-format on
    w.fake.defaults.erase("AppleInterfaceStyle");
    if (style) w.fake.defaults["AppleInterfaceStyle"] = *style;
    EXPECT_EQ(render(w.menuFor(kPng)),
              pngMenu("Mit Palvin umwandeln", " (doc.text, Documents, " + tint + ")"));
  }
  w.fake.symbols.erase("doc.text");
  w.putCatalogue(R"({"convertMenuTitle": "",)", 1);  // wins even empty
  EXPECT_EQ(render(w.menuFor(kPng)), pngMenu("", ""));
}

// A pick sends the whole selection in plan order and leaves the menu for
// another pick; a pick without a current item only warns; the fallback item
// brings the host app to the front. Mounts refresh the monitored folders, the
// root and each volume once, until the controller goes.
TEST(FinderSyncSession, LogFromLaunchToRequestStalePicksFallbackAndMounts) {
  World w;
  const Files files = {{"/x/b.png", "png"}, {"/x/a.png", "png"}};
  const std::string stale = "[WARN] convertAction: stale menu state for tag ", fallback = "Palvin einrichten";
  w.fake.translations["Convert with Palvin \xE2\x80\x94 open to set up"] = fallback;
  w.fake.volumes = Lines{"/", "/mnt/a", "/mnt/b", "/mnt/a"};
  w.sync().convertAction(1);
  w.menuFor(Lines{"/x/b.png", "/x/a.png"});
  w.sync().convertAction(2);
  EXPECT_EQ(w.sync().targetFormatByTag(), kPngTags);
  EXPECT_EQ(w.sync().pendingFiles(), files);
  for (std::int64_t tag : {0, 5}) w.sync().convertAction(tag);
  w.menuFor(Lines{"/x/a.txt"});
  w.sync().convertAction(2);
  w.menuFor(kPng);
  w.fake.removeFile("/container/capabilities.json");
  EXPECT_EQ(render(w.menuFor(kPng)), "'' ['" + fallback + "' open]");
  w.sync().convertAction(1);
  w.sync().openHostApp();
  w.fake.volumes = std::nullopt;
  w.fake.simulateVolumeChange();
  w.finder.reset();  // a controller that goes takes its observation along
  w.fake.simulateVolumeChange();

  const Lines requests =
      w.fake.filesUnder("/container/requests");  // full paths; the log names the file alone
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(FinderConversionRequest::decode(w.fake.file(requests[0])->content).value(),
            (FinderConversionRequest{"jpeg", files}));
  EXPECT_EQ(w.newLines(),
            (Lines{"[INFO] FinderSync launched: /Applications/Palvin.app/Contents/PlugIns/PalvinFinder.appex",
                   "[DEBUG] Monitoring 3 directories", stale + "1", kLoaded,
                   kBuilt + "2 file(s), 3 inline target(s), 1 nested categor(ies)",
                   "[INFO] User chose jpeg for 2 file(s)",
                   "[INFO] Wrote request " + requests[0].substr(20) + ": 2 file(s) \xE2\x86\x92 jpeg",
                   stale + "0", stale + "5", kNoPlan + "1 file(s)", stale + "2",
                   kBuilt + "1 file(s), 3 inline target(s), 1 nested categor(ies)", stale + "1",
                   "[INFO] Opening host app from fallback menu item", "[DEBUG] Monitoring 1 directories"}));
  // The pick's launch stays in the background (requests-test); the fallback's comes to the front.
  ASSERT_EQ(w.fake.launches().size(), 2u);
  EXPECT_TRUE(w.fake.launches()[1].configuration.activates);
  // The first set is published before mounts are watched.
  Lines events = w.fake.events();
  std::erase_if(events,
                [](const std::string& e) { return !e.starts_with("monitor") && !e.starts_with("observe"); });
  EXPECT_EQ(events, (Lines{"monitor / /mnt/a /mnt/b", "observe volumes", "monitor /"}));
}

}  // namespace
}  // namespace palvin
