// Lints a capabilities document for host-app developers: what the extension
// tolerates silently but is almost surely a mistake.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "shared/text.h"

namespace palvin {

struct CapabilityFinding {
  enum class Severity { error, warning };
  Severity severity;
  std::string path;     // JSON path, e.g. "formats[2].category"
  std::string message;  // what is wrong there
  bool operator==(const CapabilityFinding&) const = default;
};

struct CapabilityCheckReport {
  std::vector<CapabilityFinding> findings;  // errors first, then warnings in document order
  bool usable = false;                      // decodes and has schema version 1
};

// `text` lower-cases extension keys as the menu lower-cases selected files'.
CapabilityCheckReport checkCapabilities(std::string_view bytes, const TextRules& text);

}  // namespace palvin
