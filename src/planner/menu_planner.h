// Decides what the Convert menu offers for a selection: a pure computation
// over the catalogue, with no state, files or logging.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
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

// The steps `plan` composes, in the order it runs them. They are public so
// that `palvin-finder explain` reports from the very same functions and can
// never disagree with the menu. Views and pointers point into the catalogue.

// The format id that an extension stands for, or null when it is not a key of
// extensionToFormatId (matched exactly: no case folding, no dot stripped).
const std::string* sourceFormatId(const FinderCapabilities& capabilities, const std::string& ext);

struct SourceFormats {
  std::vector<FinderFileRef> files;     // one per input, in input order
  std::vector<const std::string*> ids;  // the distinct source format ids, in first-seen order
};

// Source formats: the plan's files and the distinct source ids, or nothing
// when one input's extension is not a key. The rvalue overload moves paths.
std::optional<SourceFormats> sourceFormats(const FinderCapabilities& capabilities,
                                           const std::vector<FileInput>& inputs);
std::optional<SourceFormats> sourceFormats(const FinderCapabilities& capabilities,
                                           std::vector<FileInput>&& inputs);

// Common targets: the ids that every source converts to, each once, in the
// order of the first source's list; empty when a source has no conversions.
std::vector<std::string_view> commonTargets(const FinderCapabilities& capabilities,
                                            const std::vector<const std::string*>& sourceIds);

// Removes the selection's own formats from `targets`; returns the removed ids in their order.
std::vector<std::string_view> dropSourceFormats(std::vector<std::string_view>& targets,
                                                const std::vector<const std::string*>& sourceIds);

struct CatalogueIndex {
  struct CategoryEntry {
    const FinderCapabilities::Category* category;
    std::size_t position;  // in the catalogue's list, which orders the groups
  };
  std::unordered_map<std::string_view, const FinderCapabilities::Format*> formats;
  std::unordered_map<std::string_view, CategoryEntry> categories;
};

// The catalogue's formats and categories by id; the first entry of a repeated id wins.
CatalogueIndex indexCatalogue(const FinderCapabilities& capabilities);

struct SourceCategory {
  std::optional<std::string_view> id;  // set when exactly one category holds the listed sources
  std::size_t categoryCount = 0;       // distinct categories of the sources that formats lists
};

// Source category: the one category that every listed source format shares.
SourceCategory sourceCategory(const CatalogueIndex& index, const std::vector<const std::string*>& sourceIds);

struct Grouping {
  std::vector<TargetItem> inlineTargets;
  std::vector<CategoryGroup> groups;
  std::vector<std::string_view> unlisted;                         // targets that formats does not list
  std::vector<const FinderCapabilities::Format*> offeredNowhere;  // nested in a category not listed
};

// Grouping: `targets` split into the source category's inline targets and the
// other categories' groups in catalogue order, each sorted by display name;
// also what is left out, in the order of `targets`.
Grouping group(const std::vector<std::string_view>& targets, std::optional<std::string_view> sourceCategory,
               const CatalogueIndex& index, const TextRules& text);

// A file input for a path as the menu takes it: the extension is the text
// after the last dot of the last path component (empty when there is none),
// lower-cased by `text`.
FileInput fileInputForPath(std::string path, const TextRules& text);

}  // namespace palvin::FinderMenuPlanner
