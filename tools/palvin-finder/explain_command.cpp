// palvin-finder explain: why the plan for a selection is what it is. The
// answer to "why doesn't my format show up in the menu?".
#include <iostream>
#include <unordered_map>
#include <unordered_set>

#include "loading.h"
#include "platform/platform.h"
#include "shared/json_writer.h"
#include "shared/text.h"
#include "tool.h"

namespace palvin::tool {
namespace {

using Format = FinderCapabilities::Format;
using Category = FinderCapabilities::Category;

std::string jsonQuoted(std::string_view s) {
  std::string out;
  json::appendString(out, json::toValidUtf8(s));
  return out;
}

std::string joinIds(const std::vector<std::string>& ids) {
  if (ids.empty()) return "(none)";
  std::string out;
  for (const auto& id : ids) {
    if (!out.empty()) out += ", ";
    out += json::toValidUtf8(id);
  }
  return out;
}

// The list under `sourceId`, duplicates dropped, in document order.
std::vector<std::string> targetsOf(const FinderCapabilities& catalogue, const std::string& sourceId) {
  std::vector<std::string> out;
  auto it = catalogue.conversions.find(sourceId);
  if (it == catalogue.conversions.end()) return out;
  std::unordered_set<std::string> seen;
  for (const auto& id : it->second) {
    if (seen.insert(id).second) out.push_back(id);
  }
  return out;
}

// Why an extension found no key: the near misses a host-app developer makes.
std::string missingKeyHint(const FinderCapabilities& catalogue, const std::string& ext) {
  for (const auto& [key, formatId] : catalogue.extensionToFormatId) {
    if (key != ext && currentPlatform().textRules()->lowercase(key) == ext) {
      return "; the document has the key " + jsonQuoted(key) + ", but keys match exactly and extensions are lower-cased";
    }
    if (key == "." + ext) return "; the document has the key " + jsonQuoted(key) + ", but keys are written without the dot";
  }
  return "";
}

int explain(const std::string& file, const std::vector<std::string>& paths, std::ostream& out) {
  Style style = styleForStdout();
  auto loaded = loadCatalogue(file);
  if (!loaded) return kExitUsage;
  const FinderCapabilities& catalogue = *loaded;
  std::unordered_map<std::string_view, const Format*> formats;
  for (const auto& format : catalogue.formats) formats.try_emplace(format.id, &format);
  std::unordered_map<std::string_view, const Category*> categories;
  for (const auto& category : catalogue.categories) categories.try_emplace(category.id, &category);

  if (catalogue.schemaVersion != 1) {
    out << style.yellow("note") << ": schemaVersion is " << catalogue.schemaVersion
        << "; the extension ignores this document and offers only \"open to set up\".\n";
  }
  out << style.bold("Files") << '\n';
  std::vector<std::string> sources;
  std::optional<std::vector<std::string>> common;
  const auto text = currentPlatform().textRules();
  for (const auto& path : paths) {
    auto input = FinderMenuPlanner::fileInputForPath(path, *text);
    out << "  " << json::toValidUtf8(path) << '\n';
    auto key = catalogue.extensionToFormatId.find(input.ext);
    if (key == catalogue.extensionToFormatId.end()) {
      out << "    extension " << jsonQuoted(input.ext) << " is not a key of extensionToFormatId"
          << missingKeyHint(catalogue, input.ext) << '\n';
      out << '\n'
          << style.red("No Convert menu") << ": one unrecognised file withholds the menu from the whole selection.\n";
      return kExitOk;
    }
    const std::string& source = key->second;
    sources.push_back(source);
    auto format = formats.find(source);
    out << "    extension " << jsonQuoted(input.ext) << " → source format " << json::toValidUtf8(source);
    if (format == formats.end()) {
      out << " (not listed in formats, so it gives no source category)\n";
    } else {
      out << " (category " << json::toValidUtf8(format->second->category) << ")\n";
    }
    std::vector<std::string> targets = targetsOf(catalogue, source);
    out << "    converts to: "
        << (catalogue.conversions.count(source) ? joinIds(targets) : "(no entry in conversions)") << '\n';
    if (!common) {
      common = targets;
    } else {
      std::unordered_set<std::string> keep(targets.begin(), targets.end());
      std::erase_if(*common, [&keep](const std::string& id) { return keep.count(id) == 0; });
    }
  }

  out << style.bold("Targets") << '\n';
  out << "  common to every file: " << joinIds(*common) << '\n';
  std::unordered_set<std::string> own(sources.begin(), sources.end());
  std::vector<std::string> removed;
  std::erase_if(*common, [&](const std::string& id) {
    if (own.count(id) == 0) return false;
    removed.push_back(id);
    return true;
  });
  out << "  removed as the selection's own formats: " << joinIds(removed) << '\n';
  std::vector<std::string> unknown;
  std::erase_if(*common, [&](const std::string& id) {
    if (formats.count(id) != 0) return false;
    unknown.push_back(id);
    return true;
  });
  out << "  dropped, not listed in formats: " << joinIds(unknown) << '\n';

  std::unordered_set<std::string> sourceCategories;
  for (const auto& source : sources) {
    auto format = formats.find(source);
    if (format != formats.end()) sourceCategories.insert(format->second->category);
  }
  std::optional<std::string> sourceCategory;
  if (sourceCategories.size() == 1) sourceCategory = *sourceCategories.begin();
  out << style.bold("Categories") << '\n';
  if (sourceCategory) {
    out << "  source category: " << json::toValidUtf8(*sourceCategory) << " (its targets stand inline)\n";
  } else if (sourceCategories.empty()) {
    out << "  no source category: no source format is listed in formats, so every target is nested\n";
  } else {
    out << "  no source category: the files' formats span " << sourceCategories.size()
        << " categories, so every target is nested\n";
  }
  std::vector<std::string> nowhere;
  for (const auto& id : *common) {
    const std::string& category = formats.at(id)->category;
    if (category != sourceCategory && categories.count(category) == 0) {
      nowhere.push_back(id + " (category " + category + ")");
    }
  }
  out << "  offered nowhere, category not listed in categories: " << joinIds(nowhere) << '\n';

  out << '\n';
  std::vector<FinderMenuPlanner::FileInput> inputs;
  for (const auto& path : paths) inputs.push_back(FinderMenuPlanner::fileInputForPath(path, *text));
  auto plan = FinderMenuPlanner::plan(catalogue, inputs, *text);
  if (!plan) {
    out << style.red("No Convert menu") << ": no target is left to offer.\n";
    return kExitOk;
  }
  printPlan(out, plan, inputs.size());
  return kExitOk;
}

}  // namespace

void addExplainCommand(CommandLine commandLine) {
  struct Options {
    std::string capabilities;
    std::vector<std::string> paths;
  };
  auto options = std::make_shared<Options>();
  CLI::App* command = commandLine.app.add_subcommand(
      "explain",
      "Say why the Convert menu for PATHs is what it is: each file's extension and source format (or\n"
      "the missing key that withholds the menu), each file's targets, their intersection, what is\n"
      "removed as the selection's own formats or dropped as unknown, the source category, and the\n"
      "categories offered nowhere. Answers \"why doesn't my format show up in the menu?\".");
  addCatalogueOptions(*command, options->capabilities, "explain against", options->paths,
                      "selected files, in selection order (need not exist)");
  command->footer("\nExit codes: 0 explained (with or without a menu); 2 the document can't be read or decoded.");
  int& exitCode = commandLine.exitCode;
  command->callback([options, &exitCode] { exitCode = explain(options->capabilities, options->paths, std::cout); });
}

}  // namespace palvin::tool
