#include "planner/menu_planner.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "shared/paths.h"

namespace palvin::FinderMenuPlanner {

namespace {

using Category = FinderCapabilities::Category;
using Format = FinderCapabilities::Format;

// The category index and the category position, kept in one map: both are
// keyed by category id and both take the first entry of a repeated id.
struct CategoryEntry {
  const Category* category;
  std::size_t position;
};

// Keys are views into the catalogue, which outlives the call, so no id is
// copied until it goes into the plan.
using IdSet = std::unordered_set<std::string_view>;

// Display-name order; names that compare the same fall back to the format id
// so the menu does not depend on hash-set iteration order.
std::vector<TargetItem> sortedTargets(std::vector<const Format*>& formats, const TextRules& text) {
  std::sort(formats.begin(), formats.end(), [&text](const Format* a, const Format* b) {
    const int order = text.compareDisplayNames(a->displayName, b->displayName);
    if (order != 0) return order < 0;
    return a->id < b->id;
  });
  std::vector<TargetItem> items;
  items.reserve(formats.size());
  for (const Format* format : formats) items.push_back(TargetItem{format->id, format->displayName});
  return items;
}

// With `Inputs` an rvalue the paths move into the plan: a menu for ten
// thousand files then copies none of them.
template <class Inputs>
std::optional<Plan> planFor(const FinderCapabilities& capabilities, Inputs&& inputs, const TextRules& text) {
  constexpr bool kMovePaths = !std::is_const_v<std::remove_reference_t<Inputs>> && std::is_rvalue_reference_v<Inputs&&>;
  if (inputs.empty()) return std::nullopt;
  const auto& extensionToFormatId = capabilities.extensionToFormatId;

  // Source formats. A selection repeats few extensions, so the distinct source
  // ids are collected once each; intersecting a set with itself changes
  // nothing, so the common targets need only these.
  Plan result;
  result.files.reserve(inputs.size());
  std::vector<const std::string*> sourceIds;
  std::unordered_set<const std::string*> seenMappings;
  IdSet seenSourceIds;
  const std::string* previousExt = nullptr;
  const std::string* sourceId = nullptr;
  for (auto& input : inputs) {
    if (previousExt == nullptr || input.ext != *previousExt) {
      const auto found = extensionToFormatId.find(input.ext);
      if (found == extensionToFormatId.end()) return std::nullopt;
      previousExt = &input.ext;
      sourceId = &found->second;
      if (seenMappings.insert(sourceId).second && seenSourceIds.insert(*sourceId).second) {
        sourceIds.push_back(sourceId);
      }
    }
    if constexpr (kMovePaths) {
      result.files.push_back(FinderFileRef{std::move(input.path), *sourceId});
    } else {
      result.files.push_back(FinderFileRef{input.path, *sourceId});
    }
  }

  // Common targets: the intersection of every source's conversions, without
  // any of the selection's own formats.
  IdSet common;
  bool firstSource = true;
  for (const std::string* source : sourceIds) {
    const auto found = capabilities.conversions.find(*source);
    if (found == capabilities.conversions.end()) return std::nullopt;
    const std::vector<std::string>& targets = found->second;
    if (firstSource) {
      common.reserve(targets.size());
      common.insert(targets.begin(), targets.end());
      firstSource = false;
    } else {
      IdSet kept;
      kept.reserve(std::min(targets.size(), common.size()));
      for (const std::string& target : targets) {
        if (common.count(target) != 0) kept.insert(target);
      }
      common = std::move(kept);
    }
    if (common.empty()) return std::nullopt;
  }
  for (const std::string* source : sourceIds) common.erase(*source);
  if (common.empty()) return std::nullopt;

  // Catalogue indexes; emplace keeps the first entry of a repeated id.
  std::unordered_map<std::string_view, const Format*> formatIndex;
  formatIndex.reserve(capabilities.formats.size());
  for (const Format& format : capabilities.formats) formatIndex.emplace(format.id, &format);
  std::unordered_map<std::string_view, CategoryEntry> categoryIndex;
  categoryIndex.reserve(capabilities.categories.size());
  for (std::size_t position = 0; position < capabilities.categories.size(); ++position) {
    const Category& category = capabilities.categories[position];
    categoryIndex.emplace(category.id, CategoryEntry{&category, position});
  }

  // Source category: the one category that all listed source formats share.
  std::optional<std::string_view> sourceCategory;
  bool severalSourceCategories = false;
  for (const std::string* source : sourceIds) {
    const auto found = formatIndex.find(*source);
    if (found == formatIndex.end()) continue;
    const std::string& category = found->second->category;
    if (!sourceCategory) {
      sourceCategory = category;
    } else if (*sourceCategory != category) {
      severalSourceCategories = true;
    }
  }
  if (severalSourceCategories) sourceCategory.reset();

  // Targets by category; ids that the catalogue does not list are dropped.
  std::unordered_map<std::string_view, std::vector<const Format*>> targetsByCategory;
  for (std::string_view target : common) {
    const auto found = formatIndex.find(target);
    if (found == formatIndex.end()) continue;
    targetsByCategory[found->second->category].push_back(found->second);
  }

  if (sourceCategory) {
    const auto found = targetsByCategory.find(*sourceCategory);
    if (found != targetsByCategory.end()) result.inlineTargets = sortedTargets(found->second, text);
  }

  // Nested categories in catalogue order. Categories the catalogue does not
  // list would sort last and then be skipped, so they are left out at once;
  // their lists are never sorted.
  struct Nested {
    const CategoryEntry* entry;
    std::vector<const Format*>* formats;
  };
  std::vector<Nested> nested;
  nested.reserve(targetsByCategory.size());
  for (auto& [categoryId, formats] : targetsByCategory) {
    if (sourceCategory && categoryId == *sourceCategory) continue;
    const auto found = categoryIndex.find(categoryId);
    if (found == categoryIndex.end()) continue;
    nested.push_back(Nested{&found->second, &formats});
  }
  std::sort(nested.begin(), nested.end(),
            [](const Nested& a, const Nested& b) { return a.entry->position < b.entry->position; });
  result.groups.reserve(nested.size());
  for (const Nested& group : nested) {
    const Category& category = *group.entry->category;
    result.groups.push_back(
        CategoryGroup{category.id, category.label, category.icon, sortedTargets(*group.formats, text)});
  }

  if (result.inlineTargets.empty() && result.groups.empty()) return std::nullopt;
  return result;
}

}  // namespace

std::optional<Plan> plan(const FinderCapabilities& capabilities, const std::vector<FileInput>& inputs,
                         const TextRules& text) {
  return planFor(capabilities, inputs, text);
}

std::optional<Plan> plan(const FinderCapabilities& capabilities, std::vector<FileInput>&& inputs,
                         const TextRules& text) {
  return planFor(capabilities, std::move(inputs), text);
}

FileInput fileInputForPath(std::string path, const TextRules& text) {
  std::string ext = text.lowercase(paths::extension(path));
  return FileInput{std::move(path), std::move(ext)};
}

}  // namespace palvin::FinderMenuPlanner
