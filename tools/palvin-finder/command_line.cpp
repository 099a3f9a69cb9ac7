#include <palvin/identifiers.h>

#include <filesystem>
#include <iostream>

#include "services/container.h"
#include "tool.h"

namespace palvin::tool {

void printError(std::string_view command, std::string_view message) {
  std::cerr << "palvin-finder" << (command.empty() ? "" : " ") << command << ": " << message << '\n';
}

int usageError(std::string_view command, std::string_view message) {
  printError(command, message);
  return kExitUsage;
}

void addContainerOption(CLI::App& command, std::string& container, bool namedDir) {
  auto* option = command.add_option("--container", container,
                                    "shared container directory (default: $XDG_DATA_HOME/<app group>)");
  if (namedDir) option->type_name("DIR");
}

void addTimeoutOption(CLI::App& command, std::optional<double>& timeout, CLI::Option* waitFlag) {
  command.add_option("--timeout", timeout, "with " + waitFlag->get_name() + ": stop after SECONDS")
      ->type_name("SECONDS")
      ->check(CLI::PositiveNumber)
      ->needs(waitFlag);
}

void addCatalogueOptions(CLI::App& command, std::string& capabilities, std::string_view purpose,
                         std::vector<std::string>& paths, std::string_view pathsHelp) {
  command.add_option("--capabilities", capabilities, "capabilities document to " + std::string(purpose))
      ->required();
  command.add_option("paths", paths, std::string(pathsHelp))->required();
}

std::string sharedContainerHelp() {
  std::string text =
      "Shared container: the directory the extension and the host app share. It holds\n"
      "\"capabilities.json\" (written by the host app), \"finder-extension.log\" and the \"requests\"\n"
      "directory. On Linux it is --container DIR when given, else $PALVIN_SHARED_CONTAINER (an\n"
      "absolute path; the extension hands its container to the host app in it), else\n  $XDG_DATA_HOME/";
  text += ids::kAppGroupIdentifier;
  text += "\nor, when XDG_DATA_HOME is unset or relative,\n  ~/.local/share/";
  text += ids::kAppGroupIdentifier;
  text += "\nand there is none when HOME is unset too.\n";
  return text;
}

std::optional<std::string> resolveContainer(const std::string& option) {
  if (option.empty()) return FinderSharedContainer::url();
  std::error_code error;
  auto absolute = std::filesystem::absolute(option, error);
  return error ? option : absolute.lexically_normal().string();
}

std::optional<std::string> containerOrError(std::string_view command, const std::string& option) {
  auto container = resolveContainer(option);
  if (!container) printError(command, "no shared container: " + std::string(kNoContainerAdvice));
  return container;
}

}  // namespace palvin::tool
