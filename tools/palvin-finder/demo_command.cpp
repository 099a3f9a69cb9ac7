// palvin-finder demo: a guided walk through what the extension does, in a
// temporary shared container holding the sample catalogue and sample files.
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iostream>

#include "finder/finder_sync.h"
#include "menu_view.h"
#include "platform/linux_platform.h"
#include "requests/request.h"
#include "sample_catalogue.h"
#include "shared/log.h"
#include "shared/paths.h"
#include "tool.h"

namespace palvin::tool {
namespace {

namespace fs = std::filesystem;

class Demo {
 public:
  Demo(std::string root, Style style)
      : root_(std::move(root)), container_(root_ + "/container"), files_(root_ + "/Files"), style_(style) {}

  int run(bool keep);

 private:
  void step(const std::string& title, const std::string& explanation);
  void select(const std::vector<std::string>& names);
  Menu showMenu(FinderSync& finder, const std::vector<std::string>& names);
  void showNewLogLines();
  void writeFile(const std::string& path, std::string_view content);
  std::vector<std::string> requestFiles() const;

  std::string root_;
  std::string container_;
  std::string files_;
  Style style_;
  LinuxPlatform* platform_ = nullptr;
  int step_ = 0;
  std::size_t logShown_ = 0;
};

void Demo::writeFile(const std::string& path, std::string_view content) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << content;
}

void Demo::step(const std::string& title, const std::string& explanation) {
  std::cout << '\n' << style_.bold(std::to_string(++step_) + ". " + title) << '\n';
  if (!explanation.empty()) std::cout << style_.dim(explanation) << '\n';
}

void Demo::select(const std::vector<std::string>& names) {
  std::vector<std::string> selection;
  for (const auto& name : names) selection.push_back(paths::join(files_, name));
  platform_->setSelection(selection);
}

Menu Demo::showMenu(FinderSync& finder, const std::vector<std::string>& names) {
  select(names);
  std::string shown;
  for (const auto& name : names) shown += (shown.empty() ? "" : ", ") + name;
  std::cout << "Selection: " << shown << '\n';
  Menu menu = finder.menuForMenuKind(static_cast<std::uint64_t>(FIMenuKind::contextualMenuForItems));
  std::cout << renderMenu(menu, style_);
  showNewLogLines();
  return menu;
}

// The log lines written since the last look: what the extension said.
void Demo::showNewLogLines() {
  FinderLog::flush();
  std::ifstream in(paths::join(container_, FinderLog::kFileName), std::ios::binary);
  std::string content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (content.size() < logShown_) logShown_ = 0;  // trimmed or replaced
  std::string_view added = std::string_view(content).substr(logShown_);
  logShown_ = content.size();
  std::size_t start = 0;
  while (start < added.size()) {
    std::size_t end = added.find('\n', start);
    if (end == std::string_view::npos) end = added.size();
    std::cout << style_.dim("  log │ ") << added.substr(start, end - start) << '\n';
    start = end + 1;
  }
}

std::vector<std::string> Demo::requestFiles() const {
  std::vector<std::string> out;
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(requestDirectory(container_), ignored)) {
    out.push_back(entry.path().string());
  }
  std::sort(out.begin(), out.end());
  return out;
}

int Demo::run(bool keep) {
  const std::string catalogue = paths::join(container_, "capabilities.json");
  writeFile(catalogue, kSampleCatalogue);
  for (const char* name : {"photo.png", "scan.JPG", "report.pdf", "clip.mov", "voice.wav"}) {
    writeFile(paths::join(files_, name), "sample\n");
  }
  fs::create_directories(paths::join(files_, "Album"));

  LinuxPlatform::Options options;
  options.container = container_;
  options.stringsDirectory = PALVIN_STRINGS_DIR;
  LinuxPlatform platform(options);
  platform_ = &platform;
  Platform* previous = &currentPlatform();
  installPlatform(&platform);

  std::cout << style_.bold("PalvinFinder demo") << '\n'
            << "Shared container: " << container_ << '\n'
            << "  capabilities.json  the sample catalogue, as a host app would write it\n"
            << "Sample files:     " << files_ << '\n'
            << "  photo.png  scan.JPG  report.pdf  clip.mov  voice.wav  Album/\n";
  {
    step("The extension starts", "Finder creates the principal object; it logs its launch and the directories it watches.");
    FinderSync finder;
    showNewLogLines();

    step("The menu for one image",
         "Targets of the file's own category stand inline; other categories get a submenu with an icon.");
    showMenu(finder, {"photo.png"});

    step("A mixed selection",
         "An image and a PDF span two categories, so every common target is nested.");
    showMenu(finder, {"photo.png", "report.pdf"});

    step("A selection with no common target", "Nothing converts both an image and a sound: no Convert menu.");
    showMenu(finder, {"photo.png", "voice.wav"});

    step("Folders only", "Folders are dropped; with no file left there is no menu and the catalogue is not read.");
    showMenu(finder, {"Album"});

    step("Picking a target writes a request",
         "The pick becomes a request file in the container's \"requests\" directory, then the host app is "
         "signalled and launched.");
    Menu pickMenu = showMenu(finder, {"photo.png", "scan.JPG"});
    std::int64_t webpTag = 0;
    for (const auto& item : pickableItems(pickMenu)) {
      if (item.item->title == "WebP") webpTag = item.item->tag;
    }
    std::cout << "Picking " << style_.cyan("[" + std::to_string(webpTag) + "] WebP") << '\n';
    finder.convertAction(webpTag);
    showNewLogLines();
    for (const auto& file : requestFiles()) {
      std::ifstream in(file, std::ios::binary);
      std::string json((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
      std::cout << "Request file: " << style_.cyan("requests/" + std::string(paths::lastComponent(file))) << '\n'
                << json << '\n';
    }

    step("A stale pick", "An item of a menu that is no longer current is ignored with a warning.");
    finder.convertAction(42);
    showNewLogLines();

    step("The catalogue is removed", "Without capabilities the menu offers one item that opens the host app.");
    fs::remove(catalogue);
    showMenu(finder, {"photo.png"});

    step("A broken catalogue", "A document that does not decode withholds the menu and is logged on every menu.");
    writeFile(catalogue, "{\"schemaVersion\": 1, \"generatedAt\": \"now\", \"categories\": [\n");
    showMenu(finder, {"photo.png"});
  }
  FinderLog::flush();
  installPlatform(previous);

  step("The log file", "finder-extension.log in the shared container, as the host app and the user read it.");
  std::ifstream in(paths::join(container_, FinderLog::kFileName), std::ios::binary);
  std::cout << in.rdbuf();

  std::cout << '\n';
  if (keep) {
    std::cout << "Kept: " << root_ << "\nTry: palvin-finder menu --container " << container_ << ' ' << files_
              << "/photo.png\n";
  } else {
    std::error_code ignored;
    fs::remove_all(root_, ignored);
    std::cout << style_.dim("Removed the temporary container (use --keep to look around).") << '\n';
  }
  return kExitOk;
}

}  // namespace

void registerDemoCommand(Registry registry) {
  auto keep = std::make_shared<bool>(false);
  CLI::App* command = registry.app.add_subcommand(
      "demo",
      "Walk through what the extension does, step by step, in a temporary shared container holding\n"
      "the sample catalogue and a few sample files: menus for several selections, a pick that writes\n"
      "a request, a stale pick, the fallback menu, a broken catalogue, and the log file.");
  command->add_flag("--keep", *keep, "leave the temporary container and files behind and say where");
  int& exitCode = registry.exitCode;
  command->callback([keep, &exitCode] {
    std::string pattern = (fs::temp_directory_path() / "palvin-demo-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
      std::cerr << "palvin-finder demo: cannot create a temporary directory in " << fs::temp_directory_path()
                << '\n';
      exitCode = kExitUsage;
      return;
    }
    exitCode = Demo(pattern, styleForStdout()).run(*keep);
  });
}

}  // namespace palvin::tool
