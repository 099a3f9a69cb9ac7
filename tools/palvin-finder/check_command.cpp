// palvin-finder check: validates a capabilities document for host-app developers.
#include <iostream>

#include "catalogue/capabilities_check.h"
#include "platform/platform.h"
#include "shared/json_writer.h"
#include "tool.h"

namespace palvin::tool {

void addCheckCommand(CommandLine commandLine) {
  auto file = std::make_shared<std::string>();
  CLI::App* command = commandLine.app.add_subcommand(
      "check",
      "Validate a capabilities document as the extension reads it: decoding errors with their JSON\n"
      "path, a schemaVersion other than 1, then warnings for what the extension tolerates silently\n"
      "but is almost surely a mistake (duplicate or dangling ids, extension keys that never match,\n"
      "formats offered nowhere, conversions to the format itself).");
  command->add_option("file", *file, "the capabilities document, e.g. capabilities.json")->required();
  command->footer(
      "\nOne line per finding: \"error: PATH: message\" or \"warning: PATH: message\".\n"
      "Exit codes: 0 the document is usable (warnings alone do not fail); 1 it is not (it can't be\n"
      "read or decoded, or its schema version is not 1); 2 bad arguments.");
  int& exitCode = commandLine.exitCode;
  command->callback([file, &exitCode] {
    Style style = styleForStdout();
    auto bytes = currentPlatform().readFile(*file);
    if (!bytes.ok()) {
      std::cout << style.red("error") << ": (file): " << json::toValidUtf8(bytes.error()) << '\n';
      exitCode = kExitFindings;
      return;
    }
    CapabilityCheckReport report = checkCapabilities(*bytes, *currentPlatform().textRules());
    std::size_t warnings = 0;
    for (const auto& finding : report.findings) {
      bool error = finding.severity == CapabilityFinding::Severity::error;
      if (!error) ++warnings;
      std::cout << (error ? style.red("error") : style.yellow("warning")) << ": "
                << json::toValidUtf8(finding.path) << ": " << json::toValidUtf8(finding.message) << '\n';
    }
    std::cout << json::toValidUtf8(*file) << ": "
              << (report.usable ? style.green("usable") : style.red("not usable")) << ", " << warnings
              << " warning(s)\n";
    exitCode = report.usable ? kExitOk : kExitFindings;
  });
}

}  // namespace palvin::tool
