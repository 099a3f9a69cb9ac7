// palvin-finder plan: the menu plan for a selection, from a capabilities file.
#include <iostream>

#include "loading.h"
#include "planner/menu_planner.h"
#include "platform/platform.h"
#include "shared/json_writer.h"
#include "tool.h"

namespace palvin::tool {
namespace {

void appendJsonString(std::string& out, std::string_view s) {
  json::appendString(out, json::toValidUtf8(s));
}

void appendTargets(std::string& out, const std::vector<FinderMenuPlanner::TargetItem>& targets) {
  out += '[';
  for (std::size_t i = 0; i < targets.size(); ++i) {
    if (i > 0) out += ',';
    out += "{\"formatId\":";
    appendJsonString(out, targets[i].formatId);
    out += ",\"displayName\":";
    appendJsonString(out, targets[i].displayName);
    out += '}';
  }
  out += ']';
}

std::string planJson(const std::optional<FinderMenuPlanner::Plan>& plan) {
  if (!plan) return "null";
  std::string out = "{\"files\":[";
  for (std::size_t i = 0; i < plan->files.size(); ++i) {
    if (i > 0) out += ',';
    out += "{\"path\":";
    appendJsonString(out, plan->files[i].path);
    out += ",\"sourceFormatId\":";
    appendJsonString(out, plan->files[i].sourceFormatId);
    out += '}';
  }
  out += "],\"inlineTargets\":";
  appendTargets(out, plan->inlineTargets);
  out += ",\"groups\":[";
  for (std::size_t i = 0; i < plan->groups.size(); ++i) {
    const auto& group = plan->groups[i];
    if (i > 0) out += ',';
    out += "{\"id\":";
    appendJsonString(out, group.id);
    out += ",\"label\":";
    appendJsonString(out, group.label);
    out += ",\"icon\":";
    appendJsonString(out, group.icon);
    out += ",\"targets\":";
    appendTargets(out, group.targets);
    out += '}';
  }
  out += "]}";
  return out;
}

void printTargets(std::ostream& out, const Style& style,
                  const std::vector<FinderMenuPlanner::TargetItem>& targets, std::string_view indent) {
  for (std::size_t i = 0; i < targets.size(); ++i) {
    bool last = i + 1 == targets.size();
    out << indent << (last ? "└─ " : "├─ ") << json::toValidUtf8(targets[i].displayName) << "  "
        << style.dim("[" + json::toValidUtf8(targets[i].formatId) + "]") << '\n';
  }
}

}  // namespace

void printPlan(std::ostream& out, const std::optional<FinderMenuPlanner::Plan>& plan, std::size_t fileCount) {
  Style style = styleForStdout();
  if (!plan) {
    out << "No Convert menu for this selection of " << fileCount << " file(s).\n";
    return;
  }
  out << style.bold("Files") << '\n';
  for (const auto& file : plan->files) {
    out << "  " << json::toValidUtf8(file.path) << "  "
        << style.dim("(" + json::toValidUtf8(file.sourceFormatId) + ")") << '\n';
  }
  out << style.bold("Convert") << '\n';
  bool hasGroups = !plan->groups.empty();
  if (!plan->inlineTargets.empty()) {
    printTargets(out, style, plan->inlineTargets, "  ");
    if (hasGroups) out << "  " << style.dim("────────") << '\n';
  }
  for (const auto& group : plan->groups) {
    out << "  " << style.cyan(json::toValidUtf8(group.label)) << "  "
        << style.dim("{" + json::toValidUtf8(group.icon) + "} (" + json::toValidUtf8(group.id) + ")") << '\n';
    printTargets(out, style, group.targets, "    ");
  }
}

void addPlanCommand(CommandLine commandLine) {
  struct Options {
    std::string capabilities;
    bool json = false;
    std::vector<std::string> paths;
  };
  auto options = std::make_shared<Options>();
  CLI::App* command = commandLine.app.add_subcommand(
      "plan",
      "Print the Convert menu plan for PATHs (which need not exist): each file's source format, the\n"
      "inline targets and the category groups. A path's extension is the text after the last dot\n"
      "of its last component, lower-cased, exactly as the extension takes it.");
  addCatalogueOptions(*command, options->capabilities, "plan against", options->paths,
                      "selected files, in selection order");
  command->add_flag("--json", options->json,
                    "print exactly one JSON value: null when there is no plan, otherwise\n"
                    "{\"files\":[...],\"inlineTargets\":[...],\"groups\":[...]}");
  command->footer(
      "\nExit codes: 0 whether or not there is a plan; 2 when the capabilities document can't be\n"
      "read or decoded (\"Failed to decode capabilities: ...\" on standard error).");
  int& exitCode = commandLine.exitCode;
  command->callback([options, &exitCode] {
    auto capabilities = loadCatalogue(options->capabilities);
    if (!capabilities) {
      exitCode = kExitUsage;
      return;
    }
    std::vector<FinderMenuPlanner::FileInput> inputs;
    inputs.reserve(options->paths.size());
    const auto text = currentPlatform().textRules();
    for (auto& path : options->paths) inputs.push_back(FinderMenuPlanner::fileInputForPath(path, *text));
    auto plan = FinderMenuPlanner::plan(*capabilities, inputs, *text);
    if (options->json) {
      std::cout << planJson(plan) << '\n';
    } else {
      printPlan(std::cout, plan, inputs.size());
    }
    exitCode = kExitOk;
  });
}

}  // namespace palvin::tool
