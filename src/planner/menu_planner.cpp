#include "planner/menu_planner.h"

#include <algorithm>
#include <cstddef>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "shared/paths.h"

namespace palvin::FinderMenuPlanner {

namespace {

using Category = FinderCapabilities::Category;
using Format = FinderCapabilities::Format;

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

// With `Inputs` an rvalue the paths move into the files: a menu for ten
// thousand files then copies none of them.
template <class Inputs>
std::optional<SourceFormats> sourceFormatsOf(const FinderCapabilities& capabilities, Inputs&& inputs) {
  constexpr bool kMovePaths =
      !std::is_const_v<std::remove_reference_t<Inputs>> && std::is_rvalue_reference_v<Inputs&&>;
  // A selection repeats few extensions: a run of one extension is looked up
  // once, and each mapping is checked for a new id once.
  SourceFormats result;
  result.files.reserve(inputs.size());
  std::unordered_set<const std::string*> seenMappings;
  IdSet seenSourceIds;
  const std::string* previousExt = nullptr;
  const std::string* sourceId = nullptr;
  for (auto& input : inputs) {
    if (previousExt == nullptr || input.ext != *previousExt) {
      sourceId = sourceFormatId(capabilities, input.ext);
      if (sourceId == nullptr) return std::nullopt;
      previousExt = &input.ext;
      if (seenMappings.insert(sourceId).second && seenSourceIds.insert(*sourceId).second) {
        result.ids.push_back(sourceId);
      }
    }
    if constexpr (kMovePaths) {
      result.files.push_back(FinderFileRef{std::move(input.path), *sourceId});
    } else {
      result.files.push_back(FinderFileRef{input.path, *sourceId});
    }
  }
  return result;
}

template <class Inputs>
std::optional<Plan> planFor(const FinderCapabilities& capabilities, Inputs&& inputs, const TextRules& text) {
  if (inputs.empty()) return std::nullopt;
  std::optional<SourceFormats> sources = sourceFormats(capabilities, std::forward<Inputs>(inputs));
  if (!sources) return std::nullopt;
  std::vector<std::string_view> targets = commonTargets(capabilities, sources->ids);
  dropSourceFormats(targets, sources->ids);
  if (targets.empty()) return std::nullopt;
  // Built only once there is something to offer, since they cover the whole catalogue.
  const CatalogueIndex index = indexCatalogue(capabilities);
  Grouping grouping = group(targets, sourceCategory(index, sources->ids).id, index, text);
  if (grouping.inlineTargets.empty() && grouping.groups.empty()) return std::nullopt;
  return Plan{std::move(sources->files), std::move(grouping.inlineTargets), std::move(grouping.groups)};
}

}  // namespace

const std::string* sourceFormatId(const FinderCapabilities& capabilities, const std::string& ext) {
  const auto found = capabilities.extensionToFormatId.find(ext);
  return found == capabilities.extensionToFormatId.end() ? nullptr : &found->second;
}

std::optional<SourceFormats> sourceFormats(const FinderCapabilities& capabilities,
                                           const std::vector<FileInput>& inputs) {
  return sourceFormatsOf(capabilities, inputs);
}

std::optional<SourceFormats> sourceFormats(const FinderCapabilities& capabilities,
                                           std::vector<FileInput>&& inputs) {
  return sourceFormatsOf(capabilities, std::move(inputs));
}

std::vector<std::string_view> commonTargets(const FinderCapabilities& capabilities,
                                            const std::vector<const std::string*>& sourceIds) {
  std::vector<std::string_view> common;
  bool firstSource = true;
  for (const std::string* source : sourceIds) {
    const auto found = capabilities.conversions.find(*source);
    if (found == capabilities.conversions.end()) return {};
    const std::vector<std::string>& targets = found->second;
    if (firstSource) {
      // A list may repeat an id; it counts once.
      IdSet seen;
      seen.reserve(targets.size());
      common.reserve(targets.size());
      for (const std::string& target : targets) {
        if (seen.insert(target).second) common.push_back(target);
      }
      firstSource = false;
    } else {
      const IdSet offered(targets.begin(), targets.end());
      std::erase_if(common, [&offered](std::string_view id) { return offered.count(id) == 0; });
    }
    if (common.empty()) break;
  }
  return common;
}

std::vector<std::string_view> dropSourceFormats(std::vector<std::string_view>& targets,
                                                const std::vector<const std::string*>& sourceIds) {
  std::vector<std::string_view> removed;
  auto kept = targets.begin();
  for (std::string_view target : targets) {
    const bool own = std::any_of(sourceIds.begin(), sourceIds.end(),
                                 [target](const std::string* id) { return *id == target; });
    if (own) {
      removed.push_back(target);
    } else {
      *kept++ = target;
    }
  }
  targets.erase(kept, targets.end());
  return removed;
}

CatalogueIndex indexCatalogue(const FinderCapabilities& capabilities) {
  // emplace keeps the first entry of a repeated id.
  CatalogueIndex index;
  index.formats.reserve(capabilities.formats.size());
  for (const Format& format : capabilities.formats) index.formats.emplace(format.id, &format);
  index.categories.reserve(capabilities.categories.size());
  for (std::size_t position = 0; position < capabilities.categories.size(); ++position) {
    const Category& category = capabilities.categories[position];
    index.categories.emplace(category.id, CatalogueIndex::CategoryEntry{&category, position});
  }
  return index;
}

SourceCategory sourceCategory(const CatalogueIndex& index, const std::vector<const std::string*>& sourceIds) {
  // Source formats that formats does not list have no say.
  SourceCategory result;
  IdSet others;
  for (const std::string* source : sourceIds) {
    const auto found = index.formats.find(*source);
    if (found == index.formats.end()) continue;
    const std::string& category = found->second->category;
    if (!result.id) {
      result.id = category;
    } else if (*result.id != category) {
      others.insert(category);
    }
  }
  result.categoryCount = result.id ? 1 + others.size() : 0;
  if (!others.empty()) result.id.reset();
  return result;
}

Grouping group(const std::vector<std::string_view>& targets, std::optional<std::string_view> sourceCategory,
               const CatalogueIndex& index, const TextRules& text) {
  // One slot per other category met; `entry` is null for a category the
  // catalogue does not list, whose targets are then offered nowhere.
  struct Nested {
    const CatalogueIndex::CategoryEntry* entry = nullptr;
    std::vector<const Format*> formats;
  };
  Grouping result;
  std::vector<const Format*> inlineFormats;
  std::unordered_map<std::string_view, Nested> nestedByCategory;
  for (std::string_view target : targets) {
    const auto found = index.formats.find(target);
    if (found == index.formats.end()) {
      result.unlisted.push_back(target);
      continue;
    }
    const Format* format = found->second;
    if (sourceCategory && format->category == *sourceCategory) {
      inlineFormats.push_back(format);
      continue;
    }
    auto [slot, added] = nestedByCategory.try_emplace(format->category);
    if (added) {
      const auto category = index.categories.find(format->category);
      if (category != index.categories.end()) slot->second.entry = &category->second;
    }
    if (slot->second.entry == nullptr) {
      result.offeredNowhere.push_back(format);
    } else {
      slot->second.formats.push_back(format);
    }
  }
  result.inlineTargets = sortedTargets(inlineFormats, text);

  // Groups in catalogue order.
  std::vector<Nested*> nested;
  nested.reserve(nestedByCategory.size());
  for (auto& [categoryId, slot] : nestedByCategory) {
    if (slot.entry != nullptr) nested.push_back(&slot);
  }
  std::sort(nested.begin(), nested.end(),
            [](const Nested* a, const Nested* b) { return a->entry->position < b->entry->position; });
  result.groups.reserve(nested.size());
  for (Nested* slot : nested) {
    const Category& category = *slot->entry->category;
    result.groups.push_back(
        CategoryGroup{category.id, category.label, category.icon, sortedTargets(slot->formats, text)});
  }
  return result;
}

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
