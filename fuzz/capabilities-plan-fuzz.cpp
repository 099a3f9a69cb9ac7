// A fuzzed catalogue and selection through decoding and planning. The input is
// the catalogue's bytes, a NUL byte, then the selected paths, one per line.
// Every plan must keep the promises the menu builder relies on.
#include <algorithm>
#include <unordered_map>
#include <unordered_set>

#include "catalogue/capabilities.h"
#include "fuzz_check.h"
#include "planner/menu_planner.h"
#include "platform/linux_text.h"

namespace {

using namespace palvin;

// What the first entry of each format id says, as planning indexes it.
std::unordered_map<std::string, const FinderCapabilities::Format*> formatIndex(const FinderCapabilities& c) {
  std::unordered_map<std::string, const FinderCapabilities::Format*> index;
  for (const auto& format : c.formats) index.emplace(format.id, &format);
  return index;
}

bool convertsTo(const FinderCapabilities& c, const std::string& source, const std::string& target) {
  auto it = c.conversions.find(source);
  return it != c.conversions.end() &&
         std::find(it->second.begin(), it->second.end(), target) != it->second.end();
}

void checkPlan(const FinderCapabilities& c, const std::vector<FinderMenuPlanner::FileInput>& inputs,
               const FinderMenuPlanner::Plan& plan) {
  FUZZ_CHECK(!plan.inlineTargets.empty() || !plan.groups.empty());
  FUZZ_CHECK(plan.files.size() == inputs.size());
  for (std::size_t i = 0; i < inputs.size(); ++i) {
    FUZZ_CHECK(plan.files[i].path == inputs[i].path);
    auto known = c.extensionToFormatId.find(inputs[i].ext);
    FUZZ_CHECK(known != c.extensionToFormatId.end() && known->second == plan.files[i].sourceFormatId);
  }

  const auto formats = formatIndex(c);
  std::unordered_set<std::string> sourceCategories;
  for (const auto& file : plan.files) {
    if (auto it = formats.find(file.sourceFormatId); it != formats.end())
      sourceCategories.insert(it->second->category);
  }
  const std::string* sourceCategory = sourceCategories.size() == 1 ? &*sourceCategories.begin() : nullptr;

  std::unordered_set<std::string> offered;
  auto checkTarget = [&](const FinderMenuPlanner::TargetItem& target, const std::string& category) {
    FUZZ_CHECK(offered.insert(target.formatId).second);
    auto format = formats.find(target.formatId);
    FUZZ_CHECK(format != formats.end());
    FUZZ_CHECK(format->second->displayName == target.displayName);
    FUZZ_CHECK(format->second->category == category);
    for (const auto& file : plan.files) {
      FUZZ_CHECK(file.sourceFormatId != target.formatId);
      FUZZ_CHECK(convertsTo(c, file.sourceFormatId, target.formatId));
    }
  };
  if (!plan.inlineTargets.empty()) FUZZ_CHECK(sourceCategory != nullptr);
  for (const auto& target : plan.inlineTargets) checkTarget(target, *sourceCategory);

  std::unordered_set<std::string> groupIds;
  for (const auto& group : plan.groups) {
    FUZZ_CHECK(!group.targets.empty());
    FUZZ_CHECK(groupIds.insert(group.id).second);
    if (sourceCategory) FUZZ_CHECK(group.id != *sourceCategory);
    auto listed = std::find_if(c.categories.begin(), c.categories.end(),
                               [&](const auto& category) { return category.id == group.id; });
    FUZZ_CHECK(listed != c.categories.end());
    FUZZ_CHECK(listed->label == group.label && listed->icon == group.icon);
    for (const auto& target : group.targets) checkTarget(target, group.id);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  const std::string_view input = fuzz::bytes(data, size);
  const std::size_t split = input.find('\0');
  if (split == std::string_view::npos) return 0;
  auto capabilities = FinderCapabilities::decode(input.substr(0, split));
  if (!capabilities.ok()) return 0;

  const auto text = linux_text::currentRules();
  std::vector<FinderMenuPlanner::FileInput> inputs;
  std::string_view rest = input.substr(split + 1);
  while (!rest.empty()) {
    const std::size_t end = std::min(rest.find('\n'), rest.size());
    inputs.push_back(FinderMenuPlanner::fileInputForPath(std::string(rest.substr(0, end)), *text));
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }

  auto plan = FinderMenuPlanner::plan(*capabilities, inputs, *text);
  if (plan) checkPlan(*capabilities, inputs, *plan);
  if (inputs.empty()) FUZZ_CHECK(!plan);
  return 0;
}
