#include "converters.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <set>

#include "shared/paths.h"

namespace palvin::host {
namespace {

const std::vector<Category> kCategories = {
    {"image", "Images", "photo"},
    {"document", "Documents", "doc.text"},
    {"audio", "Audio", "waveform"},
    {"video", "Video", "film"},
};

const std::vector<Format> kFormats = {
    {"png", "PNG", "image", {"png"}},
    {"jpeg", "JPEG", "image", {"jpg", "jpeg", "jpe"}},
    {"webp", "WebP", "image", {"webp"}},
    {"heic", "HEIC", "image", {"heic", "heif"}},
    {"gif", "GIF", "image", {"gif"}, "gif"},
    {"tiff", "TIFF", "image", {"tiff", "tif"}},
    {"pdf", "PDF", "document", {"pdf"}},
    {"txt", "Plain Text", "document", {"txt"}},
    {"wav", "WAV", "audio", {"wav"}, "wav"},
    {"mp3", "MP3", "audio", {"mp3"}, "mp3"},
    {"ogg", "Ogg Vorbis", "audio", {"ogg", "oga"}, "ogg"},
    {"flac", "FLAC", "audio", {"flac"}, "flac"},
    {"m4a", "AAC (M4A)", "audio", {"m4a"}, "ipod"},
    {"mov", "MOV", "video", {"mov"}, "mov"},
    {"mp4", "MP4", "video", {"mp4", "m4v"}, "mp4"},
    {"mkv", "Matroska", "video", {"mkv"}, "matroska"},
};

std::vector<Conversion> allConversions() {
  std::vector<Conversion> out;
  auto among = [&](std::initializer_list<std::string_view> ids, Engine engine) {
    for (auto source : ids)
      for (auto target : ids)
        if (source != target) out.push_back({source, target, engine});
  };
  among({"png", "jpeg", "webp", "heic", "gif", "tiff"}, Engine::libvips);
  out.push_back({"pdf", "png", Engine::libvips});  // the first page
  out.push_back({"pdf", "jpeg", Engine::libvips});
  out.push_back({"pdf", "txt", Engine::poppler});
  among({"wav", "mp3", "ogg", "flac", "m4a"}, Engine::ffmpeg);
  among({"mov", "mp4", "mkv"}, Engine::ffmpeg);
  for (auto video : {"mov", "mp4", "mkv"})
    for (auto target : {"gif", "wav", "mp3", "m4a"}) out.push_back({video, target, Engine::ffmpeg});
  return out;
}

}  // namespace

ConverterTable::ConverterTable(bool withFfmpeg) {
  for (const auto& conversion : allConversions()) {
    if (withFfmpeg || conversion.engine != Engine::ffmpeg) conversions_.push_back(conversion);
  }
}

const Conversion* ConverterTable::find(std::string_view source, std::string_view target) const {
  auto it = std::find_if(conversions_.begin(), conversions_.end(),
                         [&](const Conversion& c) { return c.source == source && c.target == target; });
  return it == conversions_.end() ? nullptr : &*it;
}

const Format* ConverterTable::format(std::string_view id) const {
  auto it = std::find_if(kFormats.begin(), kFormats.end(), [&](const Format& f) { return f.id == id; });
  return it == kFormats.end() ? nullptr : &*it;
}

FinderCapabilities ConverterTable::catalogue(std::string generatedAt) const {
  FinderCapabilities document;
  document.schemaVersion = 1;
  document.generatedAt = std::move(generatedAt);
  std::set<std::string_view> used, categories;
  for (const auto& c : conversions_) {
    used.insert(c.source);
    used.insert(c.target);
    document.conversions[std::string(c.source)].emplace_back(c.target);
  }
  for (const auto& format : kFormats) {
    if (!used.contains(format.id)) continue;
    categories.insert(format.category);
    document.formats.push_back({std::string(format.id), std::string(format.displayName),
                                std::string(format.category), std::string(format.extensions.front())});
    if (!document.conversions.contains(std::string(format.id))) continue;
    for (auto extension : format.extensions) document.extensionToFormatId[std::string(extension)] = format.id;
  }
  for (const auto& category : kCategories) {
    if (categories.contains(category.id)) {
      document.categories.push_back(
          {std::string(category.id), std::string(category.label), std::string(category.icon)});
    }
  }
  return document;
}

std::string findProgram(std::string_view program) {
  const char* path = std::getenv("PATH");
  std::string_view rest = path != nullptr ? path : "";
  while (!rest.empty()) {
    std::string_view directory = rest.substr(0, rest.find(':'));
    rest.remove_prefix(std::min(rest.size(), directory.size() + 1));
    if (directory.empty() || directory.front() != '/') continue;  // only absolute entries
    std::string candidate = paths::join(directory, program);
    if (::access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return {};
}

}  // namespace palvin::host
