#import "host/apple/host_app.h"

#include <CoreFoundation/CoreFoundation.h>
#import <FinderSync/FinderSync.h>
#import <Foundation/Foundation.h>
#include <dispatch/dispatch.h>
#include <os/log.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include <palvin/identifiers.h>

#include "catalogue/capability_store.h"
#include "host/apple/image_io.h"
#include "host/image_catalogue.h"
#include "platform/apple_platform.h"
#include "requests/request_queue.h"
#include "services/log.h"
#include "shared/paths.h"

namespace {

using palvin::FinderLog::Level;

constexpr std::size_t kRecentLines = 12;

NSString* toNSString(std::string_view text) {
  NSString* converted = [[NSString alloc] initWithBytes:text.data()
                                                 length:text.size()
                                               encoding:NSUTF8StringEncoding];
  return converted != nil ? converted : @"";
}

std::string toString(NSString* text) {
  const char* utf8 = text.UTF8String;
  return utf8 != nullptr ? std::string(utf8) : std::string();
}

// The host app's own unified-log subsystem, apart from the extension's.
void logLine(Level level, const std::string& message) {
  static os_log_t handle = os_log_create(std::string(palvin::ids::kHostLogSubsystem).c_str(), "PalvinHost");
  os_log_type_t type = OS_LOG_TYPE_ERROR;
  if (level == Level::debug) type = OS_LOG_TYPE_DEBUG;
  if (level == Level::info) type = OS_LOG_TYPE_INFO;
  os_log_with_type(handle, type, "%{public}s", message.c_str());
}

// When this build was made, as the catalogue's generatedAt: the time of the
// signed executable. Empty when it can't be read, which installs our
// catalogue only where there is none.
std::string buildTime(palvin::Platform& platform) {
  NSString* executable = NSBundle.mainBundle.executablePath;
  if (executable == nil) return "";
  auto built = platform.modificationDate(toString(executable));
  if (!built.ok()) return "";
  using namespace std::chrono;
  auto since = duration_cast<system_clock::duration>(seconds(built->modified.seconds) +
                                                     nanoseconds(built->modified.nanoseconds));
  return palvin::FinderLog::formatTimestamp(system_clock::time_point(since));
}

// What the status window shows of the work, recorded from any thread.
class Activity {
 public:
  void add(std::string line) {
    std::lock_guard lock(mutex_);
    lines_.push_back(std::move(line));
    if (lines_.size() > kRecentLines) lines_.pop_front();
  }
  void countRequest() {
    std::lock_guard lock(mutex_);
    ++handled_;
  }
  std::string recent() const {
    std::lock_guard lock(mutex_);
    if (lines_.empty()) return "  nothing yet\n";
    std::string text;
    for (const auto& line : lines_) text += "  " + line + "\n";
    return text;
  }
  std::size_t handled() const {
    std::lock_guard lock(mutex_);
    return handled_;
  }

 private:
  mutable std::mutex mutex_;
  std::deque<std::string> lines_;
  std::size_t handled_ = 0;
};

NSMenu* makeMainMenu() {
  NSMenu* bar = [[NSMenu alloc] initWithTitle:@""];
  NSMenu* appMenu = [[NSMenu alloc] initWithTitle:@"PalvinHost"];
  [appMenu addItemWithTitle:@"Close Window" action:@selector(performClose:) keyEquivalent:@"w"];
  [appMenu addItemWithTitle:@"Quit PalvinHost" action:@selector(terminate:) keyEquivalent:@"q"];
  NSMenuItem* appItem = [[NSMenuItem alloc] initWithTitle:@"PalvinHost" action:nil keyEquivalent:@""];
  appItem.submenu = appMenu;
  [bar addItem:appItem];
  return bar;
}

}  // namespace

@interface PalvinHostDelegate ()
- (void)scheduleScan;
- (IBAction)showExtensionSettings:(id)sender;
@end

// The request notification: the Darwin notify center calls this on the main
// run loop. It carries no payload; the directory is what counts.
static void requestPosted(CFNotificationCenterRef center, void* observer, CFNotificationName name,
                          const void* object, CFDictionaryRef userInfo) {
  (void)center;
  (void)name;
  (void)object;
  (void)userInfo;
  [(__bridge PalvinHostDelegate*)observer scheduleScan];
}

@implementation PalvinHostDelegate {
  std::unique_ptr<palvin::ApplePlatform> _platform;
  std::optional<std::string> _container;
  palvin::host::ImageCatalogue _catalogue;
  std::string _catalogueState;
  std::unique_ptr<palvin::FinderRequestQueue> _queue;
  // Requests are handled here, one scan at a time, off the main thread.
  dispatch_queue_t _work;
  std::atomic<bool> _scanScheduled;
  Activity _activity;
  NSWindow* _window;
  NSTextField* _status;
}

- (void)applicationDidFinishLaunching:(NSNotification*)notification {
  (void)notification;
  [NSApp setActivationPolicy:NSApplicationActivationPolicyAccessory];
  NSApp.mainMenu = makeMainMenu();
  _platform = std::make_unique<palvin::ApplePlatform>();
  palvin::installPlatform(_platform.get());
  _work = dispatch_queue_create((std::string(palvin::ids::kHostLogSubsystem) + ".requests").c_str(),
                                DISPATCH_QUEUE_SERIAL);
  _catalogue = palvin::host::buildImageCatalogue(palvin::host::imageIOTypes(), buildTime(*_platform));

  _container = _platform->containerPath(palvin::ids::kAppGroupIdentifier);
  if (!_container) {
    [self note:Level::error
          line:"No shared container for the app group " + std::string(palvin::ids::kAppGroupIdentifier) +
               ": PalvinHost's signature does not name it"];
    return;
  }
  // A non-sandboxed app's group container is not made for it.
  if (auto created = _platform->createDirectories(*_container); !created.ok()) {
    [self note:Level::error line:"Cannot create the shared container: " + created.error()];
    return;
  }
  [self installCatalogue];

  palvin::FinderRequestQueue::Options options;
  const palvin::host::ImageCatalogue* catalogue = &_catalogue;
  options.convert = [catalogue](const palvin::FinderFileTask& task, const std::atomic<bool>& stopping) {
    return palvin::host::convertWithImageIO(*catalogue, task, stopping);
  };
  options.log = [self](Level level, const std::string& message) { [self note:level line:message]; };
  options.finished = [self](const std::string& name, const palvin::FinderConversionResult& result) {
    (void)name;
    self->_activity.countRequest();
    for (const auto& file : result.files) {
      if (file.status != palvin::FinderFileResult::Status::converted) continue;
      self->_activity.add(std::string(palvin::paths::lastComponent(file.path)) + " \u2192 " +
                          std::string(palvin::paths::lastComponent(file.outputPath)));
    }
  };
  options.parallelism = std::max(1u, std::thread::hardware_concurrency());
  _queue = std::make_unique<palvin::FinderRequestQueue>(*_container, std::move(options));
  if (auto prepared = _queue->prepare(); !prepared.ok()) {
    [self note:Level::error line:"Cannot prepare the request directories: " + prepared.error()];
    _queue.reset();
    return;
  }
  CFNotificationCenterAddObserver(CFNotificationCenterGetDarwinNotifyCenter(), (__bridge const void*)self,
                                  requestPosted,
                                  (__bridge CFStringRef)toNSString(palvin::ids::kRequestNotificationName),
                                  nullptr, CFNotificationSuspensionBehaviorDeliverImmediately);
  // Requests written while the app was not running.
  [self scheduleScan];
}

// Logs, and keeps what the user should see for the status window.
- (void)note:(Level)level line:(const std::string&)line {
  logLine(level, line);
  if (level != Level::debug) _activity.add(line);
}

- (void)installCatalogue {
  const std::string ours = _catalogue.capabilities.encode(/*pretty=*/true) + "\n";
  const std::string path = palvin::paths::join(*_container, palvin::CapabilityStore::kFileName);
  if (!palvin::host::shouldInstallCatalogue(ours, _catalogue.capabilities.generatedAt,
                                            _platform->readFile(path))) {
    _catalogueState = "the installed one is current";
    return;
  }
  if (auto written = _platform->writeFileAtomically(path, ours); !written.ok()) {
    _catalogueState = "not installed: " + written.error();
    [self note:Level::error line:"Cannot install capabilities: " + written.error()];
    return;
  }
  _catalogueState = "installed";
  [self note:Level::info line:"Installed " + path];
}

- (void)scheduleScan {
  if (!_queue || _scanScheduled.exchange(true)) return;
  dispatch_async(_work, ^{
    // Cleared first: a notification that arrives during the scan schedules
    // one more, so nothing written meanwhile waits for the next.
    self->_scanScheduled.store(false);
    // An exception must not unwind into the dispatch queue, which would end the app.
    try {
      self->_queue->processPending();
    } catch (const std::exception& e) {
      [self note:Level::error line:std::string("Handling requests stopped: ") + e.what()];
    }
    dispatch_async(dispatch_get_main_queue(), ^{
      [self refreshStatus];
    });
  });
}

- (NSApplicationTerminateReply)applicationShouldTerminate:(NSApplication*)sender {
  (void)sender;
  if (!_queue) return NSTerminateNow;
  // Files under way finish; requests not finished go back to requests/.
  _queue->requestStop();
  dispatch_async(_work, ^{
    dispatch_async(dispatch_get_main_queue(), ^{
      [NSApp replyToApplicationShouldTerminate:YES];
    });
  });
  return NSTerminateLater;
}

- (BOOL)applicationSupportsSecureRestorableState:(NSApplication*)app {
  (void)app;
  return YES;
}

// Opened by the user, or by the extension's "open to set up" item.
- (void)applicationDidBecomeActive:(NSNotification*)notification {
  (void)notification;
  [self showStatus];
}

- (BOOL)applicationShouldHandleReopen:(NSApplication*)sender hasVisibleWindows:(BOOL)flag {
  (void)sender;
  (void)flag;
  [self showStatus];
  return NO;
}

- (IBAction)showExtensionSettings:(id)sender {
  (void)sender;
  [FIFinderSyncController showExtensionManagementInterface];
}

- (void)showStatus {
  if (_window == nil) [self makeWindow];
  [self refreshStatus];
  [_window makeKeyAndOrderFront:nil];
  if (@available(macOS 14.0, *)) {
    [NSApp activate];
  } else {
    [NSApp activateIgnoringOtherApps:YES];
  }
}

- (void)makeWindow {
  NSTextField* title = [NSTextField labelWithString:@"PalvinHost"];
  title.font = [NSFont boldSystemFontOfSize:15];
  _status = [NSTextField wrappingLabelWithString:@""];
  _status.selectable = YES;
  _status.preferredMaxLayoutWidth = 520;
  NSButton* extensions = [NSButton buttonWithTitle:@"Finder Extension Settings…"
                                            target:self
                                            action:@selector(showExtensionSettings:)];
  NSButton* quit = [NSButton buttonWithTitle:@"Quit" target:NSApp action:@selector(terminate:)];
  NSStackView* buttons = [NSStackView stackViewWithViews:@[ extensions, quit ]];
  buttons.orientation = NSUserInterfaceLayoutOrientationHorizontal;
  NSStackView* content = [NSStackView stackViewWithViews:@[ title, _status, buttons ]];
  content.orientation = NSUserInterfaceLayoutOrientationVertical;
  content.alignment = NSLayoutAttributeLeading;
  content.spacing = 12;
  content.edgeInsets = NSEdgeInsets{20, 20, 20, 20};
  _window = [[NSWindow alloc] initWithContentRect:NSMakeRect(0, 0, 560, 380)
                                        styleMask:NSWindowStyleMaskTitled | NSWindowStyleMaskClosable |
                                                  NSWindowStyleMaskMiniaturizable
                                          backing:NSBackingStoreBuffered
                                            defer:NO];
  _window.title = @"PalvinHost";
  _window.releasedWhenClosed = NO;
  _window.contentView = content;
  [_window center];
}

- (void)refreshStatus {
  if (_status == nil) return;
  const auto& capabilities = _catalogue.capabilities;
  std::size_t readable = 0;
  for (const auto& format : capabilities.formats) readable += capabilities.conversions.count(format.id);
  std::size_t writable = 0;
  for (const auto& format : capabilities.formats) {
    for (const auto& entry : capabilities.conversions) {
      if (std::find(entry.second.begin(), entry.second.end(), format.id) != entry.second.end()) {
        ++writable;
        break;
      }
    }
  }
  std::string text =
      "Converts the images you pick in Finder's Convert menu with ImageIO, and writes each result "
      "beside its original.\n\n";
  text += std::string("Finder extension: ") + (FIFinderSyncController.extensionEnabled
                                                   ? "on\n"
                                                   : "off: turn on PalvinFinder in the settings below\n");
  text += "Shared container: " + (_container ? *_container : std::string("unavailable")) + "\n";
  text += "Catalogue: " + std::to_string(readable) + " formats to convert from, " + std::to_string(writable) +
          " to convert to; " + (_catalogueState.empty() ? std::string("not installed") : _catalogueState) +
          "\n";
  std::size_t waiting = 0;
  if (_queue) {
    auto names = palvin::listRequestFileNames(_queue->requestsDirectory());
    waiting = names.ok() ? names->size() : 0;
  }
  text += "Requests: " + std::to_string(_activity.handled()) + " handled since PalvinHost started, " +
          std::to_string(waiting) + " waiting\n\nRecent:\n" + _activity.recent();
  _status.stringValue = toNSString(text);
}

@end
