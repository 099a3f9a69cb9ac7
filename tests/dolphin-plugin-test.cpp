// The Dolphin plugin loaded as KIO loads it (QPluginLoader, its factory) and
// asked for actions with KFileItemListProperties over real files, without a
// display. The plugin carries its own copy of the core, so this test links
// none of it and reads the results from disk.
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
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <tuple>

#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using namespace palvin::testing;

// The plugin inside a host app whose AppRun records each launch.
std::string gPlugin, gLaunches;

// The one colour an icon is drawn in, or "mixed".
std::string colourOf(const QIcon& icon) {
  QImage image = icon.pixmap(16).toImage();
  std::set<std::string> colours;
  for (int i = 0; i < image.width() * image.height(); ++i) {
    QColor pixel = image.pixelColor(i % image.width(), i / image.width());
    if (pixel.alpha() > 0) colours.insert(pixel.name().toStdString());
  }
  return colours.size() == 1 ? *colours.begin() : "mixed";
}

// "text <icon colour> {children}", items separated by " | ", separators "---";
// each action is also recorded under its texts' path ("Convert using Palvin/WebP").
std::string render(const QList<QAction*>& actions, std::map<std::string, QAction*>& byPath,
                   std::string at = "") {
  std::string out;
  for (QAction* action : actions) {
    std::string text = action->isSeparator() ? "---" : action->text().toStdString();
    byPath[at + text] = action;
    out += (out.empty() ? "" : " | ") + text;
    QIcon icon = action->icon();
    if (!icon.isNull()) out += " <" + icon.name().toStdString() + " " + colourOf(icon) + ">";
    if (action->menu()) out += " {" + render(action->menu()->actions(), byPath, at + text + "/") + "}";
  }
  return out;
}

class DolphinPlugin : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::remove(gLaunches);
    qputenv("XDG_DATA_HOME", dir.str().c_str());
    for (auto name : {"photo.png", "doc.pdf", "movie.mov"}) dir.write(name, name);
    fs::create_directory(dir / "folder");
    fs::create_directories(container);
    QPluginLoader loader(QString::fromStdString(gPlugin));
    auto* factory = qobject_cast<KPluginFactory*>(loader.instance());
    ASSERT_NE(factory, nullptr) << loader.errorString().toStdString();
    plugin.reset(factory->create<KAbstractFileItemActionPlugin>());
  }

  void writeCatalogue(const std::string& text) {
    writeText(container + "/capabilities.json", text);
    fs::last_write_time(container + "/capabilities.json",
                        fs::file_time_type::clock::now() + std::chrono::hours(++edits));
  }
  // Items of the test's directory as Dolphin's lister makes them; "URL -> file"
  // is an item of another scheme to which its worker gave that local path.
  std::string menuFor(const std::vector<std::string>& names) {
    KFileItemList items;
    for (const auto& name : names) {
      auto arrow = name.find(" -> ");
      std::string file = dir / name.substr(arrow == name.npos ? 0 : arrow + 4);
      QString path = QString::fromStdString(file);
      KIO::UDSEntry entry;
      entry.fastInsert(KIO::UDSEntry::UDS_NAME, QUrl::fromLocalFile(path).fileName());
      entry.fastInsert(KIO::UDSEntry::UDS_LOCAL_PATH, path);
      entry.fastInsert(KIO::UDSEntry::UDS_FILE_TYPE, fs::is_directory(file) ? S_IFDIR : S_IFREG);
      QUrl url(QString::fromStdString(name.substr(0, arrow)));
      items.append(KFileItem(entry, arrow == name.npos ? QUrl::fromLocalFile(path) : url));
    }
    return render(plugin->actions(KFileItemListProperties(items), nullptr), actions);
  }

  TempDir dir;
  const std::string container = dir / std::string(palvin::ids::kAppGroupIdentifier);
  std::unique_ptr<KAbstractFileItemActionPlugin> plugin;
  std::map<std::string, QAction*> actions;  // the latest action under each path
  int edits = 0;                            // each catalogue gets a later date
};

// The sample catalogue, with a "&" that must show as itself: doubled for Qt.
const std::string kCatalogue = std::regex_replace(readText(PALVIN_SOURCE_DIR "/examples/capabilities.json"),
                                                  std::regex("\"WebP\""), "\"Web&P\"");
const std::string kPhotoMenu =
    "Convert using Palvin {HEIC | JPEG | Web&&P | --- | Documents <x-office-document-symbolic #000000> "
    "{PDF}}";
const std::string kMovieMenu =
    "Convert using Palvin {MP4 | --- | Images <image-x-generic-symbolic #ffffff> {GIF} | "
    "Audio <audio-x-generic-symbolic #ffffff> {MP3 | WAV}}";

TEST_F(DolphinPlugin, MenusForSelections) {
  std::tuple<std::vector<std::string>, bool, std::string> cases[] = {
      // Categories stand in the catalogue's order, not the names'; a dark
      // colour scheme draws their symbols white.
      {{"movie.mov"}, true, kMovieMenu},
      {{"folder", "photo.png"}, false, kPhotoMenu},    // planned for the file alone
      {{"trash:/photo.png -> photo.png"}, false, ""},  // never written beside
  };
  writeCatalogue(kCatalogue);
  for (const auto& [selection, dark, menu] : cases) {
    QColor window = dark ? Qt::black : Qt::white;  // the text takes the other colour
    QApplication::setPalette(QPalette(window, window));
    EXPECT_EQ(menuFor(selection), menu) << selection.front();
  }
}

// Before the host app has written a catalogue, the one item opens it to the
// front; then a pick sends the request for the menu the user saw.
TEST_F(DolphinPlugin, PicksSendWhatTheUserSaw) {
  const std::string fallback = "Convert with Palvin \xE2\x80\x94 open to set up";
  EXPECT_EQ(menuFor({"photo.png"}), fallback);
  actions.at(fallback)->trigger();
  EXPECT_TRUE(waitFor([&] { return readText(gLaunches) == "--activate " + container + "\n"; }));
  writeCatalogue(kCatalogue);
  menuFor({"recentlyused:/photo.png -> photo.png"});          // the request names the local file
  QAction* webp = actions.at("Convert using Palvin/Web&&P");  // at(): a failure, not a crash, if missing
  menuFor({"doc.pdf"});  // in between, the controller's tag 3 becomes PNG for doc.pdf
  webp->trigger();
  actions.at("Convert using Palvin/Images/PNG")->trigger();
  std::multiset<std::string> requests;
  for (const auto& entry : fs::directory_iterator(container + "/requests"))
    requests.insert(readText(entry.path()));
  auto request = [&](std::string target, std::string file, std::string source) {
    return std::regex_replace(R"({"targetFormatId":")" + target + R"(","files":[{"path":")" + dir / file +
                                  R"(","sourceFormatId":")" + source + "\"}]}",
                              std::regex("/"), "\\/");
  };
  EXPECT_EQ(requests, (std::multiset{request("webp", "photo.png", "png"), request("png", "doc.pdf", "pdf")}));

  // The catalogue changes: the photo's WebP item no longer names the target it showed.
  writeCatalogue(std::regex_replace(kCatalogue, std::regex("\"webp\""), "\"webp2\""));
  webp->trigger();
  EXPECT_TRUE(waitFor([&] {
    return readText(container + "/finder-extension.log")
        .ends_with("convertAction: stale menu state for tag 3\n");
  }));
}

}  // namespace

// The application lives as long as the run, as Dolphin's does; its end must
// end the plugin's threads.
int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  TempDir bundle;
  gPlugin = bundle.write("Recorder.app/Contents/PlugIns/PalvinFinder.appex/palvin-dolphin.so", "");
  fs::copy_file(PALVIN_DOLPHIN_PLUGIN, gPlugin, fs::copy_options::overwrite_existing);
  gLaunches =
      bundle.write("Recorder.app/AppRun", "#!/bin/sh\necho \"$* $PALVIN_SHARED_CONTAINER\" >>\"$0.log\"\n");
  fs::permissions(gLaunches, fs::perms::owner_all);
  gLaunches += ".log";
  qputenv("QT_QPA_PLATFORM", "offscreen");
  qputenv("XDG_RUNTIME_DIR", bundle.str().c_str());
  auto app = std::make_unique<QApplication>(argc, argv);
  QIcon::setThemeSearchPaths({"/usr/share/icons"});  // the offscreen platform knows none
  QIcon::setThemeName("Adwaita");
  std::size_t threads = threadCount();
  int failed = RUN_ALL_TESTS();
  // Each menu goes with the plugin object that made it (KIO makes one per
  // context menu); the application's end ends the plugin's threads.
  std::string outlived;
  for (QWidget* widget : QApplication::topLevelWidgets())
    outlived += widget->inherits("QMenu") ? "a menu; " : "";
  app.reset();
  outlived += threadCount() == threads ? "" : "the plugin's threads";
  if (!outlived.empty())
    std::fprintf(stderr, "Outlived the plugin or the application: %s\n", outlived.c_str());
  return failed | static_cast<int>(!outlived.empty());
}
