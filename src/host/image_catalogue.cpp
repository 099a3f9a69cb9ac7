#include "host/image_catalogue.h"

#include <algorithm>
#include <array>
#include <utility>

#include "shared/text.h"

namespace palvin::host {
namespace {

// Where the extension alone is not what people call the format.
constexpr std::array<std::pair<std::string_view, std::string_view>, 6> kDisplayNames{{
    {"exr", "OpenEXR"},
    {"jp2", "JPEG 2000"},
    {"jpeg", "JPEG"},
    {"psd", "Photoshop"},
    {"tga", "TGA"},
    {"webp", "WebP"},
}};

std::string displayNameOf(const ImageType& type, const std::string& id) {
  for (const auto& [extension, name] : kDisplayNames) {
    if (extension == id) return std::string(name);
  }
  if (!type.preferredExtension.empty()) {
    std::string upper = id;
    for (char& c : upper) {
      if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    }
    return upper;
  }
  return type.description.empty() ? type.identifier : type.description;
}

// "2026-11-23T09:17:04.412Z": the only form in which text order is time order.
bool isTimestamp(std::string_view text) {
  constexpr std::string_view shape = "0000-00-00T00:00:00.000Z";
  if (text.size() != shape.size()) return false;
  for (std::size_t i = 0; i < shape.size(); ++i) {
    const bool digit = text[i] >= '0' && text[i] <= '9';
    if (shape[i] == '0' ? !digit : text[i] != shape[i]) return false;
  }
  return true;
}

}  // namespace

ImageCatalogue buildImageCatalogue(std::vector<ImageType> types, std::string generatedAt) {
  std::sort(types.begin(), types.end(),
            [](const ImageType& a, const ImageType& b) { return a.identifier < b.identifier; });
  ImageCatalogue result;
  FinderCapabilities& capabilities = result.capabilities;
  capabilities.schemaVersion = 1;
  capabilities.generatedAt = std::move(generatedAt);
  capabilities.categories.push_back({"image", "Images", "photo"});

  std::vector<std::string> readable, writable;
  for (const ImageType& type : types) {
    if (!type.readable && !type.writable) continue;
    const std::string id =
        type.preferredExtension.empty() ? type.identifier : text::lowercaseAscii(type.preferredExtension);
    if (!result.typeByFormatId.emplace(id, type.identifier).second) continue;
    capabilities.formats.push_back({id, displayNameOf(type, id), "image", type.preferredExtension});
    if (type.writable) writable.push_back(id);
    if (!type.readable) continue;
    readable.push_back(id);
    for (const std::string& extension : type.extensions) {
      std::string key = text::lowercaseAscii(extension);
      if (!key.empty() && key.front() == '.') key.erase(0, 1);
      if (!key.empty()) capabilities.extensionToFormatId.emplace(std::move(key), id);
    }
  }
  for (const std::string& source : readable) {
    std::vector<std::string> targets;
    for (const std::string& target : writable) {
      if (target != source) targets.push_back(target);
    }
    if (!targets.empty()) capabilities.conversions.emplace(source, std::move(targets));
  }
  return result;
}

bool shouldInstallCatalogue(std::string_view ours, std::string_view ourGeneratedAt,
                            const Result<std::string>& installed) {
  if (!installed.ok()) return true;
  auto theirs = FinderCapabilities::decode(*installed);
  if (!theirs.ok() || !isTimestamp(theirs->generatedAt)) return true;
  if (theirs->generatedAt == ourGeneratedAt) return *installed != ours;
  return theirs->generatedAt < ourGeneratedAt;
}

}  // namespace palvin::host
