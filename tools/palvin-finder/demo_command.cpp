// palvin-finder demo: a guided walk through what the extension does, in a
// temporary shared container holding the sample catalogue and sample files.
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <thread>

#include "catalogue/capability_store.h"
#include "finder/finder_sync.h"
#include "loading.h"
#include "menu_view.h"
#include "platform/linux_platform.h"
#include "requests/conversion_result.h"
#include "requests/request.h"
#include "sample_catalogue.h"
#include "sample_images.h"
#include "services/log.h"
#include "shared/paths.h"
#include "tool.h"

namespace palvin::tool {
namespace {

namespace fs = std::filesystem;

// How long the demo waits for the host app to consume its request.
constexpr std::chrono::seconds kHostAppPatience{20};

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

class Demo {
 public:
  Demo(std::string root, Style style)
      : root_(std::move(root)),
        container_(root_ + "/container"),
        files_(root_ + "/Files"),
        style_(style),
        log_(paths::join(container_, FinderLog::kFileName)) {}

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
  LogTail log_;
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
  if (auto added = log_.take(true); added.ok()) {
    LogTail::forEachLine(
        added->text, [this](std::string_view line) { std::cout << style_.dim("  log │ ") << line << '\n'; });
  }
}

// Request files in `directory`, by the host app's own rule.
std::vector<std::string> requestFiles(const std::string& directory) {
  std::vector<std::string> out;
  if (auto names = listRequestFileNames(directory); names.ok()) {
    for (const auto& name : *names) out.push_back(paths::join(directory, name));
  }
  return out;
}

std::uint32_t little(std::string_view bytes, std::size_t at, int count) {
  std::uint32_t value = 0;
  for (int i = count - 1; i >= 0; --i)
    value = value << 8 | static_cast<unsigned char>(bytes[at + static_cast<std::size_t>(i)]);
  return value;
}

// What file(1) says of a WebP file, from the header's own fields: proof that
// the output is a WebP image of the source's size, not a renamed file.
std::string describeWebp(std::string_view bytes) {
  if (bytes.size() < 30 || bytes.substr(0, 4) != "RIFF" || bytes.substr(8, 4) != "WEBP")
    return "not a WebP image";
  std::string_view chunk = bytes.substr(12, 4);
  std::uint32_t width = 0, height = 0;
  std::string encoding;
  if (chunk == "VP8 " && bytes.substr(23, 3) == "\x9d\x01\x2a") {
    encoding = "VP8 encoding";
    width = little(bytes, 26, 2) & 0x3FFF;
    height = little(bytes, 28, 2) & 0x3FFF;
  } else if (chunk == "VP8L" && bytes[20] == '\x2f') {
    encoding = "VP8L (lossless) encoding";
    std::uint32_t bits = little(bytes, 21, 4);
    width = (bits & 0x3FFF) + 1;
    height = ((bits >> 14) & 0x3FFF) + 1;
  } else if (chunk == "VP8X") {
    encoding = "VP8X (extended) encoding";
    width = little(bytes, 24, 3) + 1;
    height = little(bytes, 27, 3) + 1;
  } else {
    return "RIFF (little-endian) data, Web/P image, unknown chunk";
  }
  return "RIFF (little-endian) data, Web/P image, " + encoding + ", " + std::to_string(width) + "x" +
         std::to_string(height);
}

std::vector<RequestFile> Demo::readRequests() const {
  std::vector<RequestFile> out;
  for (const auto& path : requestFiles(requestDirectory(container_)))
    out.push_back({path, readFileOrEmpty(path)});
  return out;
}

// The host app (PalvinHost.app around the tool in the build tree) takes
// the request in the background: wait until it has removed the request,
// which it does once the results are written, and show them.
void Demo::followHostApp(const std::vector<RequestFile>& requests) {
  if (!platform_->launchedBundle) {
    std::cout << style_.yellow(
                     "No host app around the tool (run build/<preset>/palvin-finder to have "
                     "the host app take it); the request waits in requests/.")
              << '\n';
    return;
  }
  if (platform_->launchError) {
    std::cout << style_.yellow("The host app did not start: " + *platform_->launchError) << '\n';
    return;
  }
  std::cout << "Host app started: " << style_.cyan(*platform_->launchedBundle + "/AppRun") << '\n';
  const std::string directory = requestDirectory(container_);
  const std::string results = paths::join(container_, kResultsDirectoryName);
  // Done when no request waits or is being worked on, and every request
  // handed over has a result with an outcome for each file.
  auto finished = [&] {
    if (!requestFiles(directory).empty() ||
        !requestFiles(paths::join(directory, kProcessingDirectoryName)).empty()) {
      return false;
    }
    return std::all_of(requests.begin(), requests.end(), [&](const RequestFile& request) {
      auto result = FinderConversionResult::decode(
          readFileOrEmpty(paths::join(results, paths::lastComponent(request.path))));
      return result.ok() && result->count(FinderFileResult::Status::pending) == 0;
    });
  };
  auto deadline = std::chrono::steady_clock::now() + kHostAppPatience;
  while (!finished() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  if (!finished()) {
    std::cout << style_.yellow("The host app has not consumed the request within " +
                               std::to_string(kHostAppPatience.count()) + " s; going on.")
              << '\n';
    return;
  }
  std::cout << "Request consumed: requests/ holds no request file\n";
  for (const auto& request : requests) {
    std::string name(paths::lastComponent(request.path));
    std::string document = readFileOrEmpty(paths::join(results, name));
    std::cout << "Result document: " << style_.cyan("results/" + name) << '\n' << document << '\n';
    auto result = FinderConversionResult::decode(document);
    if (!result.ok()) continue;
    for (const auto& file : result->files) {
      if (file.status != FinderFileResult::Status::converted) {
        std::cout << style_.yellow(std::string(paths::lastComponent(file.path)) + " failed: " + file.error)
                  << '\n';
        continue;
      }
      std::string output = "Files/" + std::string(paths::lastComponent(file.outputPath));
      std::cout << "Converted: " << style_.cyan(output) << '\n'
                << "  " << output << ": " << describeWebp(readFileOrEmpty(file.outputPath)) << '\n';
    }
  }
}

int Demo::run(bool keep) {
  const std::string catalogue = paths::join(container_, CapabilityStore::kFileName);
  writeFile(catalogue, kSampleCatalogue);
  writeFile(paths::join(files_, "photo.png"), kSamplePhotoPng);
  writeFile(paths::join(files_, "scan.JPG"), kSampleScanJpeg);
  for (const char* name : {"report.pdf", "clip.mov", "voice.wav"})
    writeFile(paths::join(files_, name), "sample\n");
  fs::create_directories(paths::join(files_, "Album"));

  LinuxPlatform::Options options;
  options.container = container_;
  options.stringsDirectory = stringsDirectory();
  DemoPlatform platform(options);
  platform_ = &platform;
  ScopedPlatform installed(platform);

  std::cout << style_.bold("PalvinFinder demo") << '\n'
            << "Shared container: " << container_ << '\n'
            << "  capabilities.json  the sample catalogue, as a host app would write it\n"
            << "Sample files:     " << files_ << '\n'
            << "  photo.png  scan.JPG  report.pdf  clip.mov  voice.wav  Album/\n";
  {
    step("The extension starts",
         "Finder creates the principal object; it logs its launch and the directories it watches.");
    FinderSync finder;
    showNewLogLines();

    step("The menu for one image",
         "Targets of the file's own category stand inline; other categories get a submenu with an icon.");
    showMenu(finder, {"photo.png"});

    step("A mixed selection", "An image and a PDF span two categories, so every common target is nested.");
    showMenu(finder, {"photo.png", "report.pdf"});

    step("A selection with no common target", "Nothing converts both an image and a sound: no Convert menu.");
    showMenu(finder, {"photo.png", "voice.wav"});

    step("Folders only",
         "Folders are dropped; with no file left there is no menu and the catalogue is not read.");
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

    step("The catalogue is removed",
         "Without capabilities the menu offers one item that opens the host app.");
    fs::remove(catalogue);
    showMenu(finder, {"photo.png"});

    step("A broken catalogue",
         "A document that does not decode withholds the menu and is logged on every menu.");
    writeFile(catalogue, "{\"schemaVersion\": 1, \"generatedAt\": \"now\", \"categories\": [\n");
    showMenu(finder, {"photo.png"});
  }
  FinderLog::flush();

  step("The log file", "finder-extension.log in the shared container, as the host app and the user read it.");
  std::cout << readFileOrEmpty(paths::join(container_, FinderLog::kFileName));

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

void addDemoCommand(CommandLine commandLine) {
  auto keep = std::make_shared<bool>(false);
  CLI::App* command = commandLine.app.add_subcommand(
      "demo",
      "Walk through what the extension does, step by step, in a temporary shared container holding\n"
      "the sample catalogue and a few sample files: menus for several selections, a pick whose request\n"
      "the host app takes (when the tool runs from the build tree), a stale pick, the fallback\n"
      "menu, a broken catalogue, and the log file.");
  command->add_flag("--keep", *keep, "leave the temporary container and files behind and say where");
  int& exitCode = commandLine.exitCode;
  command->callback([keep, &exitCode] {
    std::string pattern = (fs::temp_directory_path() / "palvin-demo-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
      std::ostringstream message;  // the directory quoted, as a path prints
      message << "cannot create a temporary directory in " << fs::temp_directory_path();
      exitCode = usageError("demo", message.str());
      return;
    }
    exitCode = Demo(pattern, styleForStdout()).run(*keep);
  });
}

}  // namespace palvin::tool
