// PalvinHost, a sample host app for Linux: the other end of the request
// hand-off, and a reference for writing a real one.
//
// The extension writes each conversion request as a JSON file into
// "<container>/requests" and then starts the host app, the executable
// "AppRun" at the top of the bundle PalvinHost.app. This program takes every
// request it finds there, one at a time:
//
//   claim   rename() the file into requests/processing/, so that no other
//           instance can take it too;
//   decode  FinderConversionRequest::decode; a bad request is logged and
//           moved to requests/failed/, never deleted;
//   act     "convert" each file (here: write a note beside it);
//   remove  delete the claimed file.
//
// and exits once no request is left. It also installs its catalogue,
// capabilities.json, into the container, since the extension offers only
// what that document lists.
#include <fcntl.h>
#include <unistd.h>

#include <palvin/identifiers.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>
#include <tuple>
#include <vector>

#include "catalogue/capabilities.h"
#include "platform/linux_files.h"
#include "platform/linux_platform.h"
#include "requests/request.h"
#include "shared/log.h"
#include "shared/paths.h"

namespace palvin::host {
namespace {

namespace fs = std::filesystem;
using Level = FinderLog::Level;

constexpr std::string_view kCapabilitiesName = "capabilities.json";
constexpr std::string_view kLogName = "host-app.log";
constexpr std::string_view kProcessingName = "processing";
constexpr std::string_view kFailedName = "failed";

bool isOlder(const FileTime& a, const FileTime& b) {
  return std::tie(a.seconds, a.nanoseconds) < std::tie(b.seconds, b.nanoseconds);
}

// A request is a "*.json" file. Names with a leading dot are the temporary
// files of atomic writes still under way, and must be left alone.
bool isRequestName(std::string_view name) {
  return !name.empty() && name[0] != '.' && name.size() > 5 && name.ends_with(".json");
}

// Appends one whole line in a single write: O_APPEND makes concurrent
// appends from several instances land as whole lines, never interleaved.
bool appendLine(const std::string& path, std::string_view line, std::string* error) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY, 0666);
  if (fd < 0) {
    *error = linux_files::describe(path, errno);
    return false;
  }
  ssize_t written = ::write(fd, line.data(), line.size());
  int err = written < 0 ? errno : 0;
  ::close(fd);
  if (written == static_cast<ssize_t>(line.size())) return true;
  *error = linux_files::describe(path, err != 0 ? err : EIO);
  return false;
}

class HostApp {
 public:
  HostApp(LinuxPlatform& platform, std::string container)
      : platform_(platform),
        container_(std::move(container)),
        requests_(requestDirectory(container_)),
        processing_(paths::join(requests_, kProcessingName)),
        failed_(paths::join(requests_, kFailedName)) {}

  void describeContainer();
  void installCapabilities();
  bool processRequests();

 private:
  void log(Level level, const std::string& message);
  std::vector<std::string> claimableNames();
  bool claim(const std::string& name);
  void handle(const std::string& name);
  void convert(const FinderConversionRequest& request, const std::string& name);

  LinuxPlatform& platform_;
  std::string container_;
  std::string requests_;
  std::string processing_;
  std::string failed_;
};

// The host's own log, in the extension's line format, beside the
// extension's log so that the two can be read side by side.
void HostApp::log(Level level, const std::string& message) {
  std::string line = FinderLog::formatLine(platform_.now(), level, message);
  std::string error;
  if (!appendLine(paths::join(container_, kLogName), line, &error)) {
    std::cerr << line << "(" << error << ")\n";
  }
}

// Sorted, so that one instance handles requests in a stable order; a host
// that must keep the order of arrival would sort by modification time.
std::vector<std::string> HostApp::claimableNames() {
  std::vector<std::string> names;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(requests_, error)) {
    std::string name = entry.path().filename().string();
    if (isRequestName(name)) names.push_back(std::move(name));
  }
  std::sort(names.begin(), names.end());
  return names;
}

// rename() is atomic: of several instances renaming the same file, exactly
// one succeeds and the others find it gone (ENOENT).
bool HostApp::claim(const std::string& name) {
  const std::string waiting = paths::join(requests_, name);
  if (::rename(waiting.c_str(), paths::join(processing_, name).c_str()) == 0) return true;
  if (errno != ENOENT) log(Level::error, "Cannot claim " + linux_files::describe(waiting, errno));
  return false;
}

void HostApp::handle(const std::string& name) {
  const std::string claimed = paths::join(processing_, name);
  auto bytes = platform_.readFile(claimed);
  Result<FinderConversionRequest> request =
      bytes.ok() ? FinderConversionRequest::decode(*bytes) : Error{bytes.error()};
  // The target becomes part of a file name, so it must not lead elsewhere.
  if (request.ok() &&
      (request->targetFormatId.empty() ||
       request->targetFormatId.find_first_of(std::string_view("/\0", 2)) != std::string::npos)) {
    request = Error{"targetFormatId: not a plain name"};
  }
  if (!request.ok()) {
    log(Level::error, "Rejected request " + name + ": " + request.error());
    auto created = platform_.createDirectories(failed_);
    if (!created.ok() || ::rename(claimed.c_str(), paths::join(failed_, name).c_str()) != 0) {
      log(Level::error,
          "Cannot move aside " + (created.ok() ? linux_files::describe(claimed, errno) : created.error()));
    }
    return;
  }
  convert(*request, name);
  if (::unlink(claimed.c_str()) != 0) {
    log(Level::error, "Cannot remove " + linux_files::describe(claimed, errno));
  }
}

// Stands in for the conversion: a note "<file>.<target>.txt" beside each
// source. It is appended to, one line per conversion, so a file converted
// twice would show two lines. One file that fails does not stop the others.
void HostApp::convert(const FinderConversionRequest& request, const std::string& name) {
  for (const auto& file : request.files) {
    std::string result = paths::join(paths::parent(file.path), std::string(paths::lastComponent(file.path)) +
                                                                   "." + request.targetFormatId + ".txt");
    std::string line = "Converted " + file.path + " (" + file.sourceFormatId + ") to " +
                       request.targetFormatId + " for request " + name + "\n";
    std::string error;
    if (!appendLine(result, line, &error)) log(Level::error, "Cannot write result: " + error);
  }
  log(Level::info, "Handled request " + name + ": " + std::to_string(request.files.size()) +
                       " file(s) \xE2\x86\x92 " + request.targetFormatId);
}

// One pass over the request directory; true when it claimed anything, as
// requests may have arrived meanwhile.
bool HostApp::processRequests() {
  bool claimedAny = false;
  for (const auto& name : claimableNames()) {
    if (!claim(name)) continue;
    claimedAny = true;
    handle(name);
  }
  return claimedAny;
}

// The bundled catalogue replaces the container's when that one is missing or
// older, so an updated host app brings its new formats to the extension.
// Written atomically: the extension may read it at any moment.
void HostApp::installCapabilities() {
  std::string bundled = paths::join(platform_.bundlePath(), "Contents/Resources/capabilities.json");
  std::string installed = paths::join(container_, kCapabilitiesName);
  auto ours = platform_.modificationDate(bundled);
  if (!ours.ok()) {
    log(Level::error, "No bundled capabilities: " + ours.error());
    return;
  }
  auto theirs = platform_.modificationDate(installed);
  if (theirs.ok() && !isOlder(theirs->modified, ours->modified)) return;
  auto bytes = platform_.readFile(bundled);
  Status written =
      bytes.ok() ? platform_.writeFileAtomically(installed, *bytes) : Status(Error{bytes.error()});
  if (written.ok()) {
    log(Level::info, "Installed " + installed);
  } else {
    log(Level::error, "Cannot install capabilities: " + written.error());
  }
}

void HostApp::describeContainer() {
  std::cout << "PalvinHost\nShared container: " << container_ << '\n';
  auto catalogue = platform_.readFile(paths::join(container_, kCapabilitiesName));
  auto decoded = catalogue.ok() ? FinderCapabilities::decode(*catalogue) : Error{catalogue.error()};
  std::cout << "  capabilities.json  ";
  if (decoded.ok()) {
    std::cout << "present, " << decoded->formats.size() << " format(s)\n";
  } else {
    std::cout << (catalogue.ok() ? "unusable: " : "missing: ") << decoded.error() << '\n';
  }
  std::cout << "  requests/          " << claimableNames().size() << " pending\n";
  std::error_code error;
  auto logSize = fs::file_size(paths::join(container_, kLogName), error);
  std::cout << "  host-app.log       " << (error ? "none" : std::to_string(logSize) + " bytes") << '\n';
}

}  // namespace
}  // namespace palvin::host

int main(int argc, char** argv) {
  using namespace palvin;
  // The extension passes its container in the environment; otherwise the
  // usual per-user location applies, the same rule the extension follows.
  LinuxPlatform::Options options;
  if (const char* given = std::getenv("PALVIN_SHARED_CONTAINER"); given != nullptr && given[0] != '\0') {
    options.container = given;
  }
  LinuxPlatform platform(options);
  auto container = platform.containerPath(ids::kAppGroupIdentifier);
  if (!container) {
    std::cerr << "PalvinHost: no shared container (set PALVIN_SHARED_CONTAINER, XDG_DATA_HOME or HOME)\n";
    return 1;
  }
  host::HostApp app(platform, *container);
  // "--activate" asks the app to come to the front: a terminal program shows
  // what it is about to work on.
  if (std::find(argv + 1, argv + argc, std::string_view("--activate")) != argv + argc)
    app.describeContainer();

  if (auto created = platform.createDirectories(paths::join(requestDirectory(*container), "processing"));
      !created.ok()) {
    std::cerr << "PalvinHost: " << created.error() << '\n';
    return 1;
  }
  app.installCapabilities();
  while (app.processRequests()) {
  }
  return 0;
}
