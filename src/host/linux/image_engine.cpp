// Images with libvips' C++ API. The source is opened here and handed to
// libvips as a descriptor, so what was checked is what is decoded; libvips
// reads headers first, which lets an oversized image fail before its pixels
// are allocated.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <vips/vips8>

#include "converters.h"

namespace palvin::host {
namespace {

// About 100 megapixels: larger than any camera's photo, and at 4 bytes a
// pixel still a few hundred megabytes while converting.
constexpr double kMaxPixels = 100e6;
// PDF pages are rendered at this resolution.
constexpr int kPdfDpi = 150;

// libvips' messages come as "loader: text\n" lines; one line reads better.
std::string describeVipsError(const vips::VError& error) {
  std::string text = error.what();
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  for (auto& c : text) {
    if (c == '\n') c = ';';
  }
  return text.empty() ? "libvips failed" : text;
}

vips::VImage toSaveable(vips::VImage image, std::string_view target) {
  auto kind = image.interpretation();
  if (kind != VIPS_INTERPRETATION_sRGB && kind != VIPS_INTERPRETATION_B_W) {
    image = image.colourspace(VIPS_INTERPRETATION_sRGB);
  } else if (image.format() != VIPS_FORMAT_UCHAR && target != "png" && target != "tiff") {
    image = image.cast(VIPS_FORMAT_UCHAR, vips::VImage::option()->set("shift", true));
  }
  // JPEG has no transparency: composite onto white, as viewers show it.
  if (target == "jpeg" && image.has_alpha()) {
    image = image.flatten(vips::VImage::option()->set("background", std::vector<double>{255.0}));
  }
  return image;
}

// libvips calls this as it computes the image being saved; a kill there makes
// the save fail at its next tile.
void stopWhenAsked(VipsImage* image, VipsProgress*, void* stopping) {
  if (static_cast<const std::atomic<bool>*>(stopping)->load()) vips_image_set_kill(image, TRUE);
}

}  // namespace

void limitImageDecoders() {
  // Only the loaders this host app offers, whatever a file's bytes claim to be.
  vips_operation_block_set("VipsForeignLoad", TRUE);
  for (const char* loader :
       {"VipsForeignLoadPng", "VipsForeignLoadJpeg", "VipsForeignLoadWebp", "VipsForeignLoadHeif",
        "VipsForeignLoadNsgif", "VipsForeignLoadTiff", "VipsForeignLoadPdf"}) {
    vips_operation_block_set(loader, FALSE);
  }
  // Every file is converted once: a cache only holds memory.
  vips_cache_set_max(0);
}

Status convertImage(const std::string& source, const Format& target, int output, MemoryBudget& memory,
                    const std::atomic<bool>& stopping) {
  int fd = ::open(source.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) return Error{std::generic_category().message(errno)};
  struct stat info {};
  if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    ::close(fd);
    return Error{"not a regular file"};
  }
  // libvips keeps one error buffer for the process and only appends to it:
  // cleared here and after a failure, each file's reason is its own.
  vips_error_clear();
  try {
    vips::VSource input = vips::VSource::new_from_descriptor(fd);  // takes its own copy
    ::close(fd);
    fd = -1;
    // Only the loaders left unblocked can claim the file; PDF pages are
    // rendered at a readable resolution. "fail_on": a truncated or corrupt
    // file is an error, not a partial image.
    const char* loader = vips_foreign_find_load_source(input.get_source());
    if (loader == nullptr) {
      vips_error_clear();
      return Error{"not an image this host app reads"};
    }
    auto options =
        vips::VImage::option()->set("access", VIPS_ACCESS_SEQUENTIAL)->set("fail_on", VIPS_FAIL_ON_ERROR);
    // The loader's type name: "VipsForeignLoadPdfSource" with poppler.
    if (std::string_view(loader).starts_with("VipsForeignLoadPdf")) options->set("dpi", kPdfDpi);
    vips::VImage image = vips::VImage::new_from_source(input, "", options);
    double pixels = static_cast<double>(image.width()) * image.height();
    if (pixels > kMaxPixels) {
      return Error{"image too large: " + std::to_string(image.width()) + " x " +
                   std::to_string(image.height()) + " pixels (the limit is 100 megapixels)"};
    }
    // Only the header is read so far: the pixels wait for room.
    const double decoded = pixels * image.bands() * static_cast<double>(vips_format_sizeof(image.format()));
    auto hold =
        memory.reserve(static_cast<std::uint64_t>(decoded * memoryFactor(target.id)), source, stopping);
    if (!hold.ok()) return Error{hold.error()};
    image = toSaveable(image, target.id);
    vips_image_set_progress(image.get_image(), TRUE);
    g_signal_connect(image.get_image(), "eval", G_CALLBACK(stopWhenAsked),
                     const_cast<std::atomic<bool>*>(&stopping));
    vips::VTarget sink = vips::VTarget::new_to_descriptor(output);  // takes its own copy
    if (target.id == "webp") {
      image.webpsave_target(sink, vips::VImage::option()->set("Q", 80));
    } else if (target.id == "jpeg") {
      image.jpegsave_target(sink, vips::VImage::option()->set("Q", 90));
    } else if (target.id == "png") {
      image.pngsave_target(sink);
    } else if (target.id == "heic") {
      image.heifsave_target(
          sink, vips::VImage::option()->set("Q", 60)->set("compression", VIPS_FOREIGN_HEIF_COMPRESSION_HEVC));
    } else if (target.id == "gif") {
      image.gifsave_target(sink);
    } else if (target.id == "tiff") {
      image.tiffsave_target(
          sink, vips::VImage::option()->set("compression", VIPS_FOREIGN_TIFF_COMPRESSION_DEFLATE));
    } else {
      return Error{"libvips does not write " + std::string(target.displayName) + " here"};
    }
    return success();
  } catch (const vips::VError& error) {
    if (fd >= 0) ::close(fd);
    vips_error_clear();
    return Error{describeVipsError(error)};
  }
}

}  // namespace palvin::host
