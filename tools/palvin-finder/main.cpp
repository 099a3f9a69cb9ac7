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
  palvin::installPlatform(&platform);

  CLI::App app{kDescription, "palvin-finder"};
  app.footer(footer());
  app.set_version_flag("--version", versionText());
  app.require_subcommand(1);
  app.fallthrough(false);

  int exitCode = palvin::tool::kExitOk;
  palvin::tool::Registry registry{app, exitCode};
  palvin::tool::registerPlanCommand(registry);
  palvin::tool::registerCheckCommand(registry);
  palvin::tool::registerMenuCommand(registry);
  palvin::tool::registerExplainCommand(registry);
  palvin::tool::registerRequestsCommand(registry);
  palvin::tool::registerLogCommand(registry);
  palvin::tool::registerDemoCommand(registry);

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    app.exit(e);  // prints the error and the usage line
    return palvin::tool::kExitUsage;
  }
  return exitCode;
}
