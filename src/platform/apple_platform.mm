#include "platform/apple_platform.h"

#import <AppKit/AppKit.h>
#include <CoreFoundation/CoreFoundation.h>
#import <FinderSync/FinderSync.h>
#import <Foundation/Foundation.h>
#include <fcntl.h>
#include <os/log.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <mutex>
#include <new>
#include <utility>

#include <palvin/identifiers.h>

namespace palvin {
namespace {

// Every method drains its own autorelease pool: the log queue calls in from a
// plain thread that has no pool and never ends, where autoreleased objects
// would otherwise pile up for the life of the process.

NSString* toNSString(std::string_view text) {
  if (text.empty()) return @"";
  // nil when the bytes are not UTF-8.
  return [[NSString alloc] initWithBytes:text.data() length:text.size() encoding:NSUTF8StringEncoding];
}

std::string toString(NSString* text) {
  const char* utf8 = text.UTF8String;
  return utf8 != nullptr ? std::string(utf8) : std::string();
}

// Paths travel as the file system's own bytes, so any name the kernel accepts
// survives the round trip through NSURL.
NSURL* fileURL(const std::string& path, BOOL isDirectory) {
  return [NSURL fileURLWithFileSystemRepresentation:path.c_str() isDirectory:isDirectory relativeToURL:nil];
}

std::optional<std::string> pathOf(NSURL* url) {
  if (url == nil || ![url isFileURL]) return std::nullopt;
  const char* representation = url.fileSystemRepresentation;
  if (representation == nullptr) return std::nullopt;
  return std::string(representation);
}

std::vector<std::string> pathsOf(NSArray<NSURL*>* urls) {
  std::vector<std::string> paths;
  paths.reserve(urls.count);
  for (NSURL* url in urls) {
    if (auto path = pathOf(url)) paths.push_back(std::move(*path));
  }
  return paths;
}

std::string describe(NSError* error) {
  NSString* description = error.localizedDescription;
  return description != nil ? toString(description) : std::string("unknown error");
}

Error posixError(const std::string& path, int code) {
  return Error{path + ": " + describe([NSError errorWithDomain:NSPOSIXErrorDomain code:code userInfo:nil])};
}

os_log_t unifiedLogHandle() {
  // Made once, thread-safely, on first use.
  static os_log_t handle =
      os_log_create(std::string(ids::kLogSubsystem).c_str(), std::string(ids::kLogCategory).c_str());
  return handle;
}

os_log_type_t osLogType(UnifiedLogType type) {
  switch (type) {
    case UnifiedLogType::debug:
      return OS_LOG_TYPE_DEBUG;
    case UnifiedLogType::info:
      return OS_LOG_TYPE_INFO;
    case UnifiedLogType::error:
      return OS_LOG_TYPE_ERROR;
  }
  return OS_LOG_TYPE_ERROR;
}

class AppleWritableFile final : public WritableFile {
 public:
  explicit AppleWritableFile(NSFileHandle* handle) : handle_(handle) {}
  // A handle that was never closed closes itself when released.

  Result<std::uint64_t> seekToEnd() override {
    @autoreleasepool {
      unsigned long long offset = 0;
      NSError* error = nil;
      if (![handle_ seekToEndReturningOffset:&offset error:&error]) return Error{describe(error)};
      return static_cast<std::uint64_t>(offset);
    }
  }

  Status write(std::string_view bytes) override {
    @autoreleasepool {
      NSData* data = [NSData dataWithBytes:bytes.data() length:bytes.size()];
      NSError* error = nil;
      if (![handle_ writeData:data error:&error]) return Error{describe(error)};
      return success();
    }
  }

  Result<std::string> readTail(std::uint64_t length) override {
    @autoreleasepool {
      unsigned long long end = 0;
      NSError* error = nil;
      if (![handle_ seekToEndReturningOffset:&end error:&error]) return Error{describe(error)};
      const unsigned long long start = end > length ? end - length : 0;
      if (![handle_ seekToOffset:start error:&error]) return Error{describe(error)};
      NSData* data = [handle_ readDataUpToLength:static_cast<NSUInteger>(end - start) error:&error];
      if (data == nil) return Error{describe(error)};
      if (![handle_ seekToEndReturningOffset:nullptr error:&error]) return Error{describe(error)};
      if (data.length == 0) return std::string();
      return std::string(static_cast<const char*>(data.bytes), data.length);
    }
  }

  Status close() override {
    @autoreleasepool {
      NSError* error = nil;
      if (![handle_ closeAndReturnError:&error]) return Error{describe(error)};
      return success();
    }
  }

 private:
  NSFileHandle* handle_;
};

// Foundation's own comparison and case mapping, so that menus sort exactly as
// the user's Finder sorts names.
class FoundationTextRules final : public TextRules {
 public:
  // localizedCaseInsensitiveCompare: reads the current locale itself.
  int compareDisplayNames(std::string_view a, std::string_view b) const override {
    @autoreleasepool {
      NSString* left = toNSString(a);
      NSString* right = toNSString(b);
      // Titles were decoded as UTF-8, so both convert; bytes order them otherwise.
      if (left == nil || right == nil) return a < b ? -1 : (b < a ? 1 : 0);
      switch ([left localizedCaseInsensitiveCompare:right]) {
        case NSOrderedAscending:
          return -1;
        case NSOrderedDescending:
          return 1;
        case NSOrderedSame:
          break;
      }
      return 0;
    }
  }

  // lowercaseString is the canonical, locale-independent mapping.
  std::string lowercase(std::string_view utf8) const override {
    if (text::isAscii(utf8)) return text::lowercaseAscii(utf8);
    @autoreleasepool {
      NSString* text = toNSString(utf8);
      if (text == nil) return text::lowercaseAscii(utf8);
      return toString(text.lowercaseString);
    }
  }
};

}  // namespace

struct ApplePlatform::VolumeObservers {
  // What one registration's blocks call. Shared with them, since the
  // notification centre may release a block later than we forget it. The
  // mutex is held during a call, so a stop from another thread returns only
  // once no call is running; it is recursive so that a handler may stop its
  // own registration, which then only marks it cancelled.
  struct Handler {
    std::recursive_mutex mutex;
    std::function<void()> call;
    bool cancelled = false;
  };
  struct Registration {
    std::shared_ptr<Handler> handler;
    id<NSObject> mount;
    id<NSObject> unmount;
  };

  std::mutex mutex;  // guards the map and the counter
  std::map<VolumeObservation, Registration> registrations;
  VolumeObservation next = 1;
};

ApplePlatform::ApplePlatform() : volumes_(std::make_unique<VolumeObservers>()) {}

ApplePlatform::~ApplePlatform() {
  std::vector<VolumeObservation> remaining;
  {
    std::lock_guard lock(volumes_->mutex);
    for (const auto& entry : volumes_->registrations) remaining.push_back(entry.first);
  }
  for (VolumeObservation observation : remaining) stopObservingVolumeChanges(observation);
}

std::chrono::system_clock::time_point ApplePlatform::now() {
  return std::chrono::system_clock::now();
}

std::optional<std::string> ApplePlatform::containerPath(std::string_view appGroupIdentifier) {
  @autoreleasepool {
    NSString* identifier = toNSString(appGroupIdentifier);
    if (identifier == nil) return std::nullopt;
    return pathOf(
        [NSFileManager.defaultManager containerURLForSecurityApplicationGroupIdentifier:identifier]);
  }
}

bool ApplePlatform::unifiedLogEnabled(UnifiedLogType type) {
  return os_log_type_enabled(unifiedLogHandle(), osLogType(type));
}

void ApplePlatform::unifiedLog(UnifiedLogType type, std::string_view message) {
  const std::string text(message);
  // Marked public so the system does not redact the message.
  os_log_with_type(unifiedLogHandle(), osLogType(type), "%{public}s", text.c_str());
}

std::shared_ptr<const TextRules> ApplePlatform::textRules() {
  static const auto rules = std::make_shared<const FoundationTextRules>();
  return rules;
}

// lstat as attributesOfItemAtPath: does, describing a link itself, rather
// than NSFileModificationDate: an NSDate is a double and drops the
// nanoseconds that tell two quick rewrites of the file apart. A link's target
// time is taken as well, so a change of either is seen.
Result<ModificationDate> ApplePlatform::modificationDate(const std::string& path) {
  @autoreleasepool {
    auto timeOf = [](const struct stat& info) {
      return FileTime{static_cast<std::int64_t>(info.st_mtimespec.tv_sec),
                      static_cast<std::int64_t>(info.st_mtimespec.tv_nsec)};
    };
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) return posixError(path, errno);
    ModificationDate date{timeOf(info), std::nullopt};
    if (S_ISLNK(info.st_mode) && ::stat(path.c_str(), &info) == 0) date.linkTarget = timeOf(info);
    return date;
  }
}

// NSData would wait forever on a FIFO and read a device without end, so only
// regular files of a sane size are read. The file is opened once (without
// waiting for a FIFO's writer) and what was opened is checked and read: a
// file put in its place meanwhile is judged by what is actually read.
Result<std::string> ApplePlatform::readFile(const std::string& path) {
  @autoreleasepool {
    const std::string limit = std::to_string(kMaxReadSize >> 20) + " MiB limit";
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) return posixError(path, errno);
    struct Closer {
      int fd;
      ~Closer() { ::close(fd); }
    } closer{fd};
    struct stat info {};
    if (::fstat(fd, &info) != 0) return posixError(path, errno);
    if (!S_ISREG(info.st_mode)) return Error{path + ": not a regular file"};
    if (static_cast<std::uint64_t>(info.st_size) > kMaxReadSize)
      return Error{path + ": larger than the " + limit};
    try {
      std::string content;
      content.reserve(static_cast<std::size_t>(info.st_size));
      char chunk[65536];
      for (;;) {
        const ssize_t got = ::read(fd, chunk, sizeof chunk);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return posixError(path, errno);
        if (got == 0) return content;
        if (content.size() + static_cast<std::size_t>(got) > kMaxReadSize)
          return Error{path + ": grew past the " + limit + " while being read"};
        content.append(chunk, static_cast<std::size_t>(got));
      }
    } catch (const std::bad_alloc&) {
      return posixError(path, ENOMEM);
    }
  }
}

Status ApplePlatform::writeFileAtomically(const std::string& path, std::string_view bytes) {
  @autoreleasepool {
    NSData* data = [NSData dataWithBytes:bytes.data() length:bytes.size()];
    NSError* error = nil;
    if (![data writeToURL:fileURL(path, NO) options:NSDataWritingAtomic error:&error]) {
      return Error{describe(error)};
    }
    return success();
  }
}

Status ApplePlatform::createDirectories(const std::string& path) {
  @autoreleasepool {
    NSError* error = nil;
    if (![NSFileManager.defaultManager createDirectoryAtURL:fileURL(path, YES)
                                withIntermediateDirectories:YES
                                                 attributes:nil
                                                      error:&error]) {
      return Error{describe(error)};
    }
    return success();
  }
}

Result<std::unique_ptr<WritableFile>> ApplePlatform::openForWriting(const std::string& path) {
  @autoreleasepool {
    NSError* error = nil;
    // For updating, since the log reads the file's tail back.
    NSFileHandle* handle = [NSFileHandle fileHandleForUpdatingURL:fileURL(path, NO) error:&error];
    if (handle == nil) return Error{describe(error)};
    return std::unique_ptr<WritableFile>(std::make_unique<AppleWritableFile>(handle));
  }
}

void ApplePlatform::postNotification(std::string_view name) {
  @autoreleasepool {
    NSString* notificationName = toNSString(name);
    if (notificationName == nil) return;
    CFNotificationCenterPostNotification(CFNotificationCenterGetDarwinNotifyCenter(),
                                         (__bridge CFStringRef)notificationName, nullptr, nullptr, true);
  }
}

std::string ApplePlatform::bundlePath() {
  @autoreleasepool {
    return toString(NSBundle.mainBundle.bundlePath);
  }
}

void ApplePlatform::openApplication(const std::string& bundlePath, const OpenConfiguration& configuration,
                                    LaunchCompletion completion) {
  @autoreleasepool {
    NSWorkspaceOpenConfiguration* openConfiguration = [NSWorkspaceOpenConfiguration configuration];
    openConfiguration.activates = configuration.activates;
    openConfiguration.addsToRecentItems = configuration.addsToRecentItems;
    [NSWorkspace.sharedWorkspace openApplicationAtURL:fileURL(bundlePath, YES)
                                        configuration:openConfiguration
                                    completionHandler:^(NSRunningApplication* application, NSError* error) {
                                      (void)application;
                                      if (!completion) return;
                                      // Runs on a thread of the system's; nothing may escape into it.
                                      try {
                                        @autoreleasepool {
                                          if (error != nil) {
                                            completion(describe(error));
                                          } else {
                                            completion(std::nullopt);
                                          }
                                        }
                                      } catch (...) {
                                      }
                                    }];
  }
}

std::optional<std::vector<std::string>> ApplePlatform::selectedItemPaths() {
  @autoreleasepool {
    NSArray<NSURL*>* urls = [[FIFinderSyncController defaultController] selectedItemURLs];
    if (urls == nil) return std::nullopt;
    return pathsOf(urls);
  }
}

std::optional<bool> ApplePlatform::isDirectory(const std::string& path) {
  @autoreleasepool {
    id value = nil;
    NSError* error = nil;
    if (![fileURL(path, NO) getResourceValue:&value forKey:NSURLIsDirectoryKey error:&error]) {
      return std::nullopt;
    }
    if (![value isKindOfClass:[NSNumber class]]) return std::nullopt;
    return static_cast<bool>([(NSNumber*)value boolValue]);
  }
}

std::optional<std::vector<std::string>> ApplePlatform::mountedVolumePaths() {
  @autoreleasepool {
    // No options: hidden volumes are listed too.
    NSArray<NSURL*>* volumes =
        [NSFileManager.defaultManager mountedVolumeURLsIncludingResourceValuesForKeys:nil options:0];
    if (volumes == nil) return std::nullopt;
    return pathsOf(volumes);
  }
}

void ApplePlatform::setMonitoredDirectories(const std::vector<std::string>& paths) {
  @autoreleasepool {
    NSMutableArray<NSURL*>* urls = [NSMutableArray arrayWithCapacity:paths.size()];
    for (const auto& path : paths) [urls addObject:fileURL(path, YES)];
    [FIFinderSyncController defaultController].directoryURLs = [NSSet setWithArray:urls];
  }
}

VolumeObservation ApplePlatform::observeVolumeChanges(std::function<void()> handler) {
  auto shared = std::make_shared<VolumeObservers::Handler>();
  shared->call = std::move(handler);
  @autoreleasepool {
    void (^deliver)(NSNotification*) = ^(NSNotification* notification) {
      (void)notification;
      std::lock_guard lock(shared->mutex);
      if (shared->cancelled || !shared->call) return;
      // Delivered by AppKit; an exception must not unwind into it.
      try {
        shared->call();
      } catch (...) {
      }
    };
    NSNotificationCenter* center = NSWorkspace.sharedWorkspace.notificationCenter;
    VolumeObservers::Registration registration{shared, nil, nil};
    registration.mount = [center addObserverForName:NSWorkspaceDidMountNotification
                                             object:nil
                                              queue:nil
                                         usingBlock:deliver];
    registration.unmount = [center addObserverForName:NSWorkspaceDidUnmountNotification
                                               object:nil
                                                queue:nil
                                           usingBlock:deliver];
    std::lock_guard lock(volumes_->mutex);
    const VolumeObservation observation = volumes_->next++;
    volumes_->registrations.emplace(observation, std::move(registration));
    return observation;
  }
}

void ApplePlatform::stopObservingVolumeChanges(VolumeObservation observation) {
  VolumeObservers::Registration registration;
  {
    std::lock_guard lock(volumes_->mutex);
    auto found = volumes_->registrations.find(observation);
    if (found == volumes_->registrations.end()) return;
    registration = std::move(found->second);
    volumes_->registrations.erase(found);
  }
  @autoreleasepool {
    NSNotificationCenter* center = NSWorkspace.sharedWorkspace.notificationCenter;
    if (registration.mount != nil) [center removeObserver:registration.mount];
    if (registration.unmount != nil) [center removeObserver:registration.unmount];
  }
  // Waits for a call in progress on another thread, then disarms the blocks
  // that the centre may still hold.
  std::lock_guard lock(registration.handler->mutex);
  registration.handler->cancelled = true;
}

std::optional<std::string> ApplePlatform::userDefaultString(std::string_view key) {
  @autoreleasepool {
    NSString* name = toNSString(key);
    if (name == nil) return std::nullopt;
    NSString* value = [NSUserDefaults.standardUserDefaults stringForKey:name];
    if (value == nil) return std::nullopt;
    return toString(value);
  }
}

bool ApplePlatform::hasSymbolImage(std::string_view name) {
  @autoreleasepool {
    NSString* symbolName = toNSString(name);
    if (symbolName == nil) return false;
    return [NSImage imageWithSystemSymbolName:symbolName accessibilityDescription:nil] != nil;
  }
}

std::string ApplePlatform::localizedString(std::string_view key) {
  @autoreleasepool {
    NSString* text = toNSString(key);
    if (text == nil) return std::string(key);
    // The English key doubles as the text when no table translates it.
    return toString([NSBundle.mainBundle localizedStringForKey:text value:text table:nil]);
  }
}

}  // namespace palvin
