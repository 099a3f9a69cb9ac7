// Decides what the Convert menu offers for a selection: a pure computation
// over the catalogue, with no state, files or logging.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "catalogue/capabilities.h"
#include "requests/request.h"
#include "shared/text.h"

namespace palvin::FinderMenuPlanner {

struct FileInput {
  std::string path;
  std::string ext;  // without the dot, already lower-cased by the caller
  bool operator==(const FileInput&) const = default;
};

struct TargetItem {
  std::string formatId;
  std::string displayName;
  bool operator==(const TargetItem&) const = default;
};

struct CategoryGroup {
  std::string id;
  std::string label;
  std::string icon;
  std::vector<TargetItem> targets;
  bool operator==(const CategoryGroup&) const = default;
};

struct Plan {
  std::vector<FinderFileRef> files;
  std::vector<TargetItem> inlineTargets;
  std::vector<CategoryGroup> groups;
  bool operator==(const Plan&) const = default;
};

// Nothing means the selection gets no Convert menu. Targets are ordered by
// `text`'s display-name comparison, the platform's for the current locale.
std::optional<Plan> plan(const FinderCapabilities& capabilities, const std::vector<FileInput>& inputs,
                         const TextRules& text);
// The same, moving the inputs' paths into the plan's files.
std::optional<Plan> plan(const FinderCapabilities& capabilities, std::vector<FileInput>&& inputs,
                         const TextRules& text);

// A file input for a path as the menu takes it: the extension is the text
// after the last dot of the last path component (empty when there is none),
// lower-cased by `text`.
FileInput fileInputForPath(std::string path, const TextRules& text);

}  // namespace palvin::FinderMenuPlanner
