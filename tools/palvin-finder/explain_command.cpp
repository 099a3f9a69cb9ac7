// palvin-finder explain: why the plan for a selection is what it is. The
// answer to "why doesn't my format show up in the menu?".
#include <iostream>
#include <string_view>
#include <vector>

#include "loading.h"
#include "platform/platform.h"
#include "shared/json_writer.h"
#include "shared/text.h"
#include "tool.h"

namespace palvin::tool {
namespace {

std::string jsonQuoted(std::string_view s) {
  std::string out;
  json::appendString(out, json::toValidUtf8(s));
  return out;
}

template <class Ids>
std::string joinIds(const Ids& ids) {
  if (ids.empty()) return "(none)";
  std::string out;
  for (const auto& id : ids) {
    if (!out.empty()) out += ", ";
    out += json::toValidUtf8(id);
  }
  return out;
}

// Why an extension found no key: the near misses a host-app developer makes.
std::string missingKeyHint(const FinderCapabilities& catalogue, const std::string& ext) {
  for (const auto& [key, formatId] : catalogue.extensionToFormatId) {
    if (key != ext && currentPlatform().textRules()->lowercase(key) == ext) {
      return "; the document has the key " + jsonQuoted(key) +
             ", but keys match exactly and extensions are lower-cased";
    }
    if (key == "." + ext)
      return "; the document has the key " + jsonQuoted(key) + ", but keys are written without the dot";
  }
  return "";
}

int explain(const std::string& file, const std::vector<std::string>& paths, std::ostream& out) {
  Style style = styleForStdout();
  auto loaded = loadCatalogue(file);
  if (!loaded) return kExitUsage;
  const FinderCapabilities& catalogue = *loaded;
  // Every figure below comes from the planner's own steps, so this account and
  // the menu cannot disagree.
  const FinderMenuPlanner::CatalogueIndex index = FinderMenuPlanner::indexCatalogue(catalogue);

  if (catalogue.schemaVersion != 1) {
    out << style.yellow("note") << ": schemaVersion is " << catalogue.schemaVersion
        << "; the extension ignores this document and offers only \"open to set up\".\n";
  }
  out << style.bold("Files") << '\n';
  const auto text = currentPlatform().textRules();
  std::vector<FinderMenuPlanner::FileInput> inputs;
  for (const auto& path : paths) {
    const auto& input = inputs.emplace_back(FinderMenuPlanner::fileInputForPath(path, *text));
    out << "  " << json::toValidUtf8(path) << '\n';
    const std::string* source = FinderMenuPlanner::sourceFormatId(catalogue, input.ext);
    if (source == nullptr) {
      out << "    extension " << jsonQuoted(input.ext) << " is not a key of extensionToFormatId"
          << missingKeyHint(catalogue, input.ext) << '\n';
      out << '\n'
          << style.red("No Convert menu")
          << ": one unrecognised file withholds the menu from the whole selection.\n";
      return kExitOk;
    }
    auto format = index.formats.find(*source);
    out << "    extension " << jsonQuoted(input.ext) << " → source format " << json::toValidUtf8(*source);
    if (format == index.formats.end()) {
      out << " (not listed in formats, so it gives no source category)\n";
    } else {
      out << " (category " << json::toValidUtf8(format->second->category) << ")\n";
    }
    // One source's common targets are its own list, each id once.
    out << "    converts to: "
        << (catalogue.conversions.count(*source)
                ? joinIds(FinderMenuPlanner::commonTargets(catalogue, {source}))
                : "(no entry in conversions)")
        << '\n';
  }

  // Every extension is a key by now.
  const FinderMenuPlanner::SourceFormats sources = *FinderMenuPlanner::sourceFormats(catalogue, inputs);
  std::vector<std::string_view> targets = FinderMenuPlanner::commonTargets(catalogue, sources.ids);
  out << style.bold("Targets") << '\n';
  out << "  common to every file: " << joinIds(targets) << '\n';
  const std::vector<std::string_view> removed = FinderMenuPlanner::dropSourceFormats(targets, sources.ids);
  out << "  removed as the selection's own formats: " << joinIds(removed) << '\n';
  const FinderMenuPlanner::SourceCategory sourceCategory =
      FinderMenuPlanner::sourceCategory(index, sources.ids);
  const FinderMenuPlanner::Grouping grouping =
      FinderMenuPlanner::group(targets, sourceCategory.id, index, *text);
  out << "  dropped, not listed in formats: " << joinIds(grouping.unlisted) << '\n';

  out << style.bold("Categories") << '\n';
  if (sourceCategory.id) {
    out << "  source category: " << json::toValidUtf8(*sourceCategory.id) << " (its targets stand inline)\n";
  } else if (sourceCategory.categoryCount == 0) {
    out << "  no source category: no source format is listed in formats, so every target is nested\n";
  } else {
    out << "  no source category: the files' formats span " << sourceCategory.categoryCount
        << " categories, so every target is nested\n";
  }
  std::vector<std::string> nowhere;
  for (const FinderCapabilities::Format* format : grouping.offeredNowhere) {
    nowhere.push_back(format->id + " (category " + format->category + ")");
  }
  out << "  offered nowhere, category not listed in categories: " << joinIds(nowhere) << '\n';

  out << '\n';
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
  command->footer(
      "\nExit codes: 0 explained (with or without a menu); 2 the document can't be read or decoded.");
  int& exitCode = commandLine.exitCode;
  command->callback(
      [options, &exitCode] { exitCode = explain(options->capabilities, options->paths, std::cout); });
}

}  // namespace palvin::tool
