// palvin-finder: the extension's controller and documents on a terminal.
#include <palvin/identifiers.h>

#include <iostream>

#include "platform/linux_platform.h"
#include "tool.h"

namespace {

constexpr const char* kDescription =
    "palvin-finder drives the PalvinFinder extension's core on Linux: it decodes capabilities\n"
    "documents, plans the Convert menu for a selection of files, and checks documents written\n"
    "by a host app.";

std::string footer() {
  return "\n" + palvin::tool::sharedContainerHelp() +
         "\nExit codes: 0 success; 1 the input was read but is unusable (check, requests); 2 bad\n"
         "arguments, or an input that can't be read or decoded.\n";
}

std::string versionText() {
  std::string text = "palvin-finder ";
  text += palvin::ids::kVersion;
  text += "\nvendor prefix     ";
  text += palvin::ids::kVendorPrefix;
  text += "\nteam identifier   ";
  text += palvin::ids::kTeamId;
  text += "\napp group         ";
  text += palvin::ids::kAppGroupIdentifier;
  text += "\nextension bundle  ";
  text += palvin::ids::kExtensionBundleIdentifier;
  text += "\nnotification      ";
  text += palvin::ids::kRequestNotificationName;
  return text;
}

}  // namespace

int main(int argc, char** argv) {
  palvin::LinuxPlatform platform;
  palvin::ScopedPlatform installed(platform);

  CLI::App app{kDescription, "palvin-finder"};
  app.footer(footer());
  app.set_version_flag("--version", versionText());
  app.require_subcommand(1);
  app.fallthrough(false);

  int exitCode = palvin::tool::kExitOk;
  palvin::tool::CommandLine commandLine{app, exitCode};
  palvin::tool::addPlanCommand(commandLine);
  palvin::tool::addCheckCommand(commandLine);
  palvin::tool::addMenuCommand(commandLine);
  palvin::tool::addExplainCommand(commandLine);
  palvin::tool::addRequestsCommand(commandLine);
  palvin::tool::addLogCommand(commandLine);
  palvin::tool::addDemoCommand(commandLine);

  auto usage = [&app] {
    std::string names;
    for (const CLI::App* sub : app.get_subcommands({})) names += (names.empty() ? "" : "|") + sub->get_name();
    std::cerr << "Usage: palvin-finder <" << names << "> [options] [args]\n"
              << "Run 'palvin-finder --help' or 'palvin-finder <command> --help' for more.\n";
  };
  auto known = [&app](std::string_view name) {
    for (const CLI::App* sub : app.get_subcommands({})) {
      if (sub->get_name() == name) return true;
    }
    return false;
  };
  if (argc > 1 && argv[1][0] != '-' && !known(argv[1])) {
    palvin::tool::printError("", "unknown command '" + std::string(argv[1]) + "'");
    usage();
    return palvin::tool::kExitUsage;
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    palvin::tool::printError("", e.what());
    usage();
    return palvin::tool::kExitUsage;
  }
  return exitCode;
}
