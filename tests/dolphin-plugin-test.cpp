// The Dolphin plugin loaded as KIO loads it (QPluginLoader, its factory) and
// asked for actions with KFileItemListProperties over real files, without a
// display. The plugin carries its own copy of the core, so this test links
// none of it and reads the results from disk.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <palvin/identifiers.h>

#include <KAbstractFileItemActionPlugin>
#include <KFileItem>
#include <KFileItemListProperties>
#include <KIO/UDSEntry>
#include <KPluginFactory>
#include <QAction>
#include <QApplication>
#include <QIcon>
#include <QMenu>
#include <QPluginLoader>
#include <filesystem>
#include <map>
#include <memory>
#include <regex>

#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using palvin::testing::readText;
using palvin::testing::TempDir;
using palvin::testing::threadCount;
using palvin::testing::waitFor;

// The plugin inside a host app whose AppRun records each launch.
struct Bundle {
  TempDir dir;
  std::string plugin = dir.write("Recorder.app/Contents/PlugIns/PalvinFinder.appex/palvin-dolphin.so", "");
  std::string appRun =
      dir.write("Recorder.app/AppRun", "#!/bin/sh\necho \"$* $PALVIN_SHARED_CONTAINER\" >>\"$0.log\"\n");
  std::string launches = appRun + ".log";
};
Bundle* gBundle = nullptr;

// The application lives as long as the run, as Dolphin's does; its end must
// end the plugin's threads.
class Application : public ::testing::Environment {
  void SetUp() override {
    gBundle = new Bundle;
    fs::copy_file(PALVIN_DOLPHIN_PLUGIN, gBundle->plugin, fs::copy_options::overwrite_existing);
    fs::permissions(gBundle->appRun, fs::perms::owner_all);
    qputenv("QT_QPA_PLATFORM", "offscreen");
    qputenv("XDG_RUNTIME_DIR", gBundle->dir.str().c_str());
    app_ = std::make_unique<QApplication>(argc_, argv_);
    // The offscreen platform knows no icon theme of its own.
    QIcon::setThemeSearchPaths({"/usr/share/icons"});
    QIcon::setThemeName("Adwaita");
    baseline_ = threadCount();
  }
  void TearDown() override {
    app_.reset();
    EXPECT_EQ(threadCount(), baseline_);
    delete gBundle;
  }
  std::size_t baseline_ = 0;
  int argc_ = 1;
  char name_[8] = "test";
  char* argv_[2] = {name_, nullptr};
  std::unique_ptr<QApplication> app_;
};

// "text <icon> {children}", items separated by " | ", separators "---"; each
// action is also recorded under its texts' path ("Convert using Palvin/WebP").
std::string render(const QList<QAction*>& actions, std::map<std::string, QAction*>& byPath,
                   const std::string& at = "") {
  std::string out;
  for (QAction* action : actions) {
    std::string text = action->isSeparator() ? "---" : action->text().toStdString();
    byPath[at + text] = action;
    out += (out.empty() ? "" : " | ") + text;
    if (!action->icon().isNull()) out += " <" + action->icon().name().toStdString() + ">";
    if (action->menu() != nullptr)
      out += " {" + render(action->menu()->actions(), byPath, at + text + "/") + "}";
  }
  return out;
}

class DolphinPlugin : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::remove(gBundle->launches);
    qputenv("XDG_DATA_HOME", dir.str().c_str());
    for (auto name : {"photo.png", "doc.pdf", "movie.mov"}) dir.write(name, name);
    fs::create_directory(dir / "folder");
    QPluginLoader loader(QString::fromStdString(gBundle->plugin));
    auto* factory = qobject_cast<KPluginFactory*>(loader.instance());
    ASSERT_NE(factory, nullptr) << loader.errorString().toStdString();
    plugin.reset(factory->create<KAbstractFileItemActionPlugin>());
  }

  void writeCatalogue(const std::string& text) {
    fs::create_directories(container);
    palvin::testing::writeText(container + "/capabilities.json", text);
  }
  // Files of the test's directory; "URL -> file" is an item of another scheme
  // whose worker gave it a local path.
  std::string menuFor(const std::vector<std::string>& names) {
    KFileItemList items;
    for (const auto& name : names) {
      auto arrow = name.find(" -> ");
      if (arrow == name.npos) {
        items.append(KFileItem(QUrl::fromLocalFile(QString::fromStdString(dir / name))));
        continue;
      }
      KIO::UDSEntry entry;
      entry.fastInsert(KIO::UDSEntry::UDS_NAME, QString::fromStdString(name.substr(arrow + 4)));
      entry.fastInsert(KIO::UDSEntry::UDS_LOCAL_PATH, QString::fromStdString(dir / name.substr(arrow + 4)));
      entry.fastInsert(KIO::UDSEntry::UDS_FILE_TYPE, S_IFREG);
      items.append(KFileItem(entry, QUrl(QString::fromStdString(name.substr(0, arrow)))));
    }
    return render(plugin->actions(KFileItemListProperties(items), nullptr), actions);
  }
  std::vector<std::string> requests() {
    std::vector<std::string> found;
    std::error_code none;
    for (const auto& entry : fs::directory_iterator(container + "/requests", none)) {
      found.push_back(std::regex_replace(readText(entry.path()), std::regex(R"(\\/)"), "/"));
    }
    return found;
  }

  TempDir dir;
  const std::string container = dir / std::string(palvin::ids::kAppGroupIdentifier);
  std::unique_ptr<KAbstractFileItemActionPlugin> plugin;
  std::map<std::string, QAction*> actions;  // the latest action under each path
};

const std::string kCatalogue = readText(PALVIN_SOURCE_DIR "/examples/capabilities.json");
const std::string kPhotoMenu =
    "Convert using Palvin {HEIC | JPEG | WebP | --- | Documents <x-office-document-symbolic> {PDF}}";

TEST_F(DolphinPlugin, MenusForSelections) {
  struct {
    std::string catalogue;
    std::vector<std::string> selection;
    std::string menu;
  } cases[] = {
      {kCatalogue, {"photo.png"}, kPhotoMenu},
      // Categories stand in the catalogue's order, which is not the names' order.
      {kCatalogue,
       {"movie.mov"},
       "Convert using Palvin {MP4 | --- | Images <image-x-generic-symbolic> {GIF} | "
       "Audio <audio-x-generic-symbolic> {MP3 | WAV}}"},
      {kCatalogue, {"folder", "photo.png"}, kPhotoMenu},  // planned for the file alone
      {kCatalogue, {"folder"}, ""},
      {kCatalogue, {"recentlyused:/photo.png -> photo.png"}, kPhotoMenu},
      {kCatalogue, {"trash:/photo.png -> photo.png"}, ""},  // never written beside
      {R"({"schemaVersion":1,"generatedAt":"","convertMenuTitle":"To&Do",
          "categories":[{"id":"i","label":"Images","icon":"photo"},{"id":"v","label":"Video","icon":"cube"}],
          "formats":[{"id":"png","displayName":"PNG","category":"i","primaryExtension":"png"},
                     {"id":"mp4","displayName":"MP&4","category":"v","primaryExtension":"mp4"}],
          "extensionToFormatId":{"png":"png"},"conversions":{"png":["mp4"]}})",
       {"photo.png"},
       "To&&Do {Video {MP&&4}}"},  // "&" doubled shows as itself; no icon stands for "cube"
  };
  for (const auto& c : cases) {
    writeCatalogue(c.catalogue);
    EXPECT_EQ(menuFor(c.selection), c.menu) << c.selection.front();
  }
}

// A category's symbol is drawn in the palette's one colour: white for a dark
// colour scheme, black for a light one.
TEST_F(DolphinPlugin, CategoryIconsTakeThePaletteColour) {
  writeCatalogue(kCatalogue);
  for (auto [window, text, colour] :
       {std::tuple{Qt::black, Qt::white, Qt::white}, {Qt::white, Qt::black, Qt::black}}) {
    QPalette palette;
    palette.setColor(QPalette::Window, window);
    palette.setColor(QPalette::WindowText, text);
    QApplication::setPalette(palette);
    menuFor({"photo.png"});
    QImage image = actions["Convert using Palvin/Documents"]->icon().pixmap(16).toImage();
    int drawn = 0;
    for (int y = 0; y < image.height(); ++y) {
      for (int x = 0; x < image.width(); ++x) {
        QColor pixel = image.pixelColor(x, y);
        if (pixel.alpha() == 0) continue;
        ++drawn;
        EXPECT_EQ(pixel.rgb(), QColor(colour).rgb()) << x << "," << y;
      }
    }
    EXPECT_GT(drawn, 0);
  }
}

// Before the host app has written a catalogue, the one item opens it to the
// front; then a pick sends the request for the menu the user saw.
TEST_F(DolphinPlugin, PicksSendWhatTheUserSaw) {
  const std::string fallback = "Convert with Palvin \xE2\x80\x94 open to set up";
  EXPECT_EQ(menuFor({"photo.png"}), fallback);
  actions[fallback]->trigger();
  EXPECT_TRUE(waitFor([&] { return readText(gBundle->launches) == "--activate " + container + "\n"; }));
  writeCatalogue(kCatalogue);
  menuFor({"photo.png"});
  QAction* webp = actions["Convert using Palvin/WebP"];
  // A menu built for another selection in between: the controller's tag 3 is now PNG for doc.pdf.
  EXPECT_EQ(menuFor({"doc.pdf"}),
            "Convert using Palvin {Plain Text | --- | Images <image-x-generic-symbolic> {JPEG | PNG}}");
  webp->trigger();
  actions["Convert using Palvin/Images/PNG"]->trigger();
  auto request = [&](std::string target, std::string file, std::string source) {
    return R"({"targetFormatId":")" + target + R"(","files":[{"path":")" + dir / file +
           R"(","sourceFormatId":")" + source + "\"}]}";
  };
  EXPECT_THAT(requests(), ::testing::UnorderedElementsAre(request("webp", "photo.png", "png"),
                                                          request("png", "doc.pdf", "pdf")));
  const std::string launched = "--activate " + container + "\n " + container + "\n " + container + "\n";
  EXPECT_TRUE(waitFor([&] { return readText(gBundle->launches) == launched; }))
      << readText(gBundle->launches);

  // The catalogue changes: the photo's WebP item no longer names the target it showed.
  writeCatalogue(std::regex_replace(kCatalogue, std::regex("\"webp\""), "\"webp2\""));
  fs::last_write_time(container + "/capabilities.json",
                      fs::file_time_type::clock::now() + std::chrono::hours(1));
  webp->trigger();
  EXPECT_EQ(requests().size(), 2u);
  EXPECT_TRUE(waitFor([&] {
    return readText(container + "/finder-extension.log")
        .ends_with("[WARN] convertAction: stale menu state for tag 3\n");
  }));
}

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  ::testing::AddGlobalTestEnvironment(new Application);
  return RUN_ALL_TESTS();
}
