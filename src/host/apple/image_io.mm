#include "host/apple/image_io.h"

#import <Foundation/Foundation.h>
#import <ImageIO/ImageIO.h>
#import <UniformTypeIdentifiers/UniformTypeIdentifiers.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <map>
#include <memory>
#include <system_error>
#include <type_traits>

#include "requests/output_file.h"
#include "shared/paths.h"

namespace palvin::host {
namespace {

std::string toString(NSString* text) {
  const char* utf8 = text.UTF8String;
  return utf8 != nullptr ? std::string(utf8) : std::string();
}

NSString* toNSString(const std::string& text) {
  NSString* converted = [[NSString alloc] initWithBytes:text.data()
                                                 length:text.size()
                                               encoding:NSUTF8StringEncoding];
  return converted != nil ? converted : @"";
}

NSURL* fileURL(const std::string& path) {
  return [NSURL fileURLWithFileSystemRepresentation:path.c_str() isDirectory:NO relativeToURL:nil];
}

// Owns one CoreFoundation object.
struct Releaser {
  void operator()(const void* object) const {
    if (object != nullptr) CFRelease(object);
  }
};
template <typename Ref>
using Owned = std::unique_ptr<std::remove_pointer_t<Ref>, Releaser>;

// Animated and multi-page formats keep every image of the source; the
// others take its first.
bool keepsEveryImage(std::string_view type) {
  return type == "com.compuserve.gif" || type == "public.tiff" || type == "public.heics";
}

const FinderCapabilities::Format* findFormat(const FinderCapabilities& capabilities, const std::string& id) {
  for (const auto& format : capabilities.formats) {
    if (format.id == id) return &format;
  }
  return nullptr;
}

bool offers(const FinderCapabilities& capabilities, const std::string& source, const std::string& target) {
  auto targets = capabilities.conversions.find(source);
  return targets != capabilities.conversions.end() &&
         std::find(targets->second.begin(), targets->second.end(), target) != targets->second.end();
}

}  // namespace

std::vector<ImageType> imageIOTypes() {
  @autoreleasepool {
    std::map<std::string, ImageType> types;
    auto describe = [&types](NSString* identifier) -> ImageType& {
      auto [entry, added] = types.try_emplace(toString(identifier));
      ImageType& type = entry->second;
      if (!added) return type;
      type.identifier = entry->first;
      UTType* uti = [UTType typeWithIdentifier:identifier];
      if (uti == nil) return type;
      if (NSString* preferred = uti.preferredFilenameExtension) type.preferredExtension = toString(preferred);
      for (NSString* extension in uti.tags[UTTagClassFilenameExtension])
        type.extensions.push_back(toString(extension));
      if (NSString* description = uti.localizedDescription) type.description = toString(description);
      return type;
    };
    NSArray<NSString*>* readable = CFBridgingRelease(CGImageSourceCopyTypeIdentifiers());
    for (NSString* identifier in readable) describe(identifier).readable = true;
    NSArray<NSString*>* writable = CFBridgingRelease(CGImageDestinationCopyTypeIdentifiers());
    for (NSString* identifier in writable) describe(identifier).writable = true;

    std::vector<ImageType> result;
    for (auto& entry : types) result.push_back(std::move(entry.second));
    return result;
  }
}

FinderFileResult convertWithImageIO(const ImageCatalogue& catalogue, const FinderFileTask& task,
                                    const std::atomic<bool>& stopping) {
  using Status = FinderFileResult::Status;
  const std::string& source = task.file.path;
  auto failed = [&source](std::string reason) {
    return FinderFileResult{source, Status::failed, {}, std::move(reason)};
  };
  // ImageIO can't be interrupted; a file not started yet goes back with its request.
  if (stopping.load()) return {source, Status::pending, {}, {}};
  try {
    @autoreleasepool {
      if (auto refused = refuseSource(source)) return failed(*refused);
      const FinderCapabilities& capabilities = catalogue.capabilities;
      const FinderCapabilities::Format* target = findFormat(capabilities, task.targetFormatId);
      if (target == nullptr || !offers(capabilities, task.file.sourceFormatId, task.targetFormatId)) {
        return failed("ImageIO on this Mac does not convert " + task.file.sourceFormatId + " to " +
                      task.targetFormatId);
      }
      const std::string& targetType = catalogue.typeByFormatId.at(target->id);

      Owned<CGImageSourceRef> image(CGImageSourceCreateWithURL((__bridge CFURLRef)fileURL(source), nullptr));
      if (!image) return failed("ImageIO cannot open the file");
      const size_t count = CGImageSourceGetCount(image.get());
      if (CGImageSourceGetStatus(image.get()) != kCGImageStatusComplete || count == 0) {
        return failed("ImageIO cannot read the file as an image (it may be damaged or of another type)");
      }

      // Written in the source's own folder, named from the request, so that no
      // part of the request can lead elsewhere and a retry finds its leftover.
      const std::string directory = paths::parent(source);
      const std::string temporary = paths::join(
          directory, ".palvin-" + stemOf(task.requestName) + "-" + std::to_string(task.index) + ".tmp");
      ::unlink(temporary.c_str());
      int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0644);
      if (fd < 0)
        return failed("cannot write in " + directory + ": " + std::generic_category().message(errno));
      ::close(fd);

      bool encoded = false;
      {
        const size_t images = keepsEveryImage(targetType) ? count : 1;
        Owned<CGImageDestinationRef> output(
            CGImageDestinationCreateWithURL((__bridge CFURLRef)fileURL(temporary),
                                            (__bridge CFStringRef)toNSString(targetType), images, nullptr));
        if (output) {
          for (size_t i = 0; i < images; ++i)
            CGImageDestinationAddImageFromSource(output.get(), image.get(), i, nullptr);
          encoded = CGImageDestinationFinalize(output.get());
        }
      }
      if (!encoded) {
        ::unlink(temporary.c_str());
        return failed("ImageIO could not write this image as " + target->displayName);
      }
      const std::string extension = target->primaryExtension.empty() ? target->id : target->primaryExtension;
      auto published = publishOutput(temporary, directory, stemOf(paths::lastComponent(source)), extension);
      if (!published.ok()) {
        ::unlink(temporary.c_str());
        return failed(published.error());
      }
      return {source, Status::converted, *published, {}};
    }
  } catch (const std::exception& e) {
    return failed(e.what());
  }
}

}  // namespace palvin::host
