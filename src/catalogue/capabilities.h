// The capabilities document: what the host app can convert, written by the
// host app into the shared container and only read by the extension.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "shared/result.h"

namespace palvin {

struct FinderCapabilities {
  struct Category {
    std::string id;
    std::string label;
    std::string icon;
    bool operator==(const Category&) const = default;
  };

  struct Format {
    std::string id;
    std::string displayName;
    std::string category;
    std::string primaryExtension;
    bool operator==(const Format&) const = default;
  };

  std::int64_t schemaVersion = 0;
  std::string generatedAt;
  std::vector<Category> categories;
  std::vector<Format> formats;
  std::unordered_map<std::string, std::string> extensionToFormatId;
  std::unordered_map<std::string, std::vector<std::string>> conversions;
  std::optional<std::string> convertMenuTitle;

  bool operator==(const FinderCapabilities&) const = default;

  // Decodes a whole document. On failure the description names where decoding
  // stopped as a path and what was wrong there, e.g.
  // "formats[3].primaryExtension: missing". No partial record is produced.
  static Result<FinderCapabilities> decode(std::string_view bytes);

  // Writes the document with the keys in field order (map keys sorted so the
  // output is deterministic) and convertMenuTitle left out when absent.
  // Pretty-printed with two-space indentation when `pretty` is set.
  std::string encode(bool pretty = false) const;
};

}  // namespace palvin
