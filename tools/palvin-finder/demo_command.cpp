// palvin-finder demo: a guided walk through what the extension does, in a
// temporary shared container holding the sample catalogue and sample files.
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <thread>

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

// How long the demo waits for the host app to consume its request.
constexpr std::chrono::seconds kHostAppPatience{5};

// The Linux platform, watching the launch: it keeps the request files as they
// are when the host app is started, since from then on the host app may take
// them at any moment, and it records the launch's outcome.
class DemoPlatform : public LinuxPlatform {
 public:
  using LinuxPlatform::LinuxPlatform;

  void openApplication(const std::string& bundlePath, const OpenConfiguration& configuration,
                       LaunchCompletion completion) override {
    if (beforeLaunch) beforeLaunch();
    launchedBundle = bundlePath;
    // The Linux platform completes before returning, on this thread.
    LinuxPlatform::openApplication(bundlePath, configuration,
                                   [this, completion](std::optional<std::string> error) {
                                     launchError = error;
                                     completion(std::move(error));
                                   });
  }

  std::function<void()> beforeLaunch;
  std::optional<std::string> launchedBundle;
  std::optional<std::string> launchError;
};

struct RequestFile {
  std::string path;
  std::string json;
};

std::string readWhole(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

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
  std::vector<RequestFile> readRequests() const;
  void followHostApp(const std::vector<RequestFile>& requests);

  std::string root_;
  std::string container_;
  std::string files_;
  Style style_;
  DemoPlatform* platform_ = nullptr;
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

// Request files in `directory`: "*.json", not the dot-named temporary files
// of writes under way.
std::vector<std::string> requestFiles(const std::string& directory) {
  std::vector<std::string> out;
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(directory, ignored)) {
    std::string name = entry.path().filename().string();
    if (name[0] != '.' && entry.path().extension() == ".json") out.push_back(entry.path().string());
  }
  std::sort(out.begin(), out.end());
  return out;
}

std::vector<RequestFile> Demo::readRequests() const {
  std::vector<RequestFile> out;
  for (const auto& path : requestFiles(requestDirectory(container_))) out.push_back({path, readWhole(path)});
  return out;
}

// The sample host app (PalvinHost.app around the tool in the build tree) takes
// the request in the background: wait until it has removed the request,
// which it does once the results are written, and show them.
void Demo::followHostApp(const std::vector<RequestFile>& requests) {
  if (!platform_->launchedBundle) {
    std::cout << style_.yellow("No host app around the tool (run build/<preset>/palvin-finder to have "
                               "the sample host app take it); the request waits in requests/.")
              << '\n';
    return;
  }
  if (platform_->launchError) {
    std::cout << style_.yellow("The host app did not start: " + *platform_->launchError) << '\n';
    return;
  }
  std::cout << "Host app started: " << style_.cyan(*platform_->launchedBundle + "/AppRun") << '\n';
  std::vector<std::string> results;
  for (const auto& request : requests) {
    auto decoded = FinderConversionRequest::decode(request.json);
    if (!decoded.ok()) continue;
    for (const auto& file : decoded->files) {
      results.push_back(file.path + "." + decoded->targetFormatId + ".txt");
    }
  }
  const std::string directory = requestDirectory(container_);
  auto consumed = [&] {
    if (!requestFiles(directory).empty()) return false;
    if (!requestFiles(paths::join(directory, "processing")).empty()) return false;
    return std::all_of(results.begin(), results.end(),
                       [](const std::string& path) { return fs::exists(path); });
  };
  auto deadline = std::chrono::steady_clock::now() + kHostAppPatience;
  while (!consumed() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  if (!consumed()) {
    std::cout << style_.yellow("The host app has not consumed the request within " +
                               std::to_string(kHostAppPatience.count()) + " s; going on.")
              << '\n';
    return;
  }
  std::cout << "Request consumed: requests/ holds no request file\n";
  for (const auto& path : results) {
    std::cout << "Result file: " << style_.cyan("Files/" + std::string(paths::lastComponent(path))) << '\n'
              << readWhole(path);
  }
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
  options.stringsDirectory = stringsDirectory();
  DemoPlatform platform(options);
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

    step("Picking a target hands a request to the host app",
         "The pick becomes a request file in the container's \"requests\" directory, then the host app is "
         "signalled and started; it takes the request and writes its results beside the files.");
    Menu pickMenu = showMenu(finder, {"photo.png", "scan.JPG"});
    std::int64_t webpTag = 0;
    for (const auto& item : pickableItems(pickMenu)) {
      if (item.item->title == "WebP") webpTag = item.item->tag;
    }
    std::cout << "Picking " << style_.cyan("[" + std::to_string(webpTag) + "] WebP") << '\n';
    std::vector<RequestFile> handedOver;
    platform.beforeLaunch = [&] { handedOver = readRequests(); };
    finder.convertAction(webpTag);
    platform.beforeLaunch = nullptr;
    if (!platform.launchedBundle) handedOver = readRequests();
    showNewLogLines();
    for (const auto& request : handedOver) {
      std::string name(paths::lastComponent(request.path));
      std::cout << "Request file: " << style_.cyan("requests/" + name) << '\n' << request.json << '\n';
    }
    followHostApp(handedOver);

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
      "the sample catalogue and a few sample files: menus for several selections, a pick whose request\n"
      "the sample host app takes (when the tool runs from the build tree), a stale pick, the fallback\n"
      "menu, a broken catalogue, and the log file.");
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
