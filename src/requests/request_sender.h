// Delivers a conversion request: writes the request file, posts the request
// notification and opens the host app. Reports nothing to its callers; every
// outcome is a line in the extension log.
#pragma once

#include <optional>
#include <string>

#include "requests/request.h"

namespace palvin {

class FinderRequestSender {
 public:
  static constexpr int kHostAppCandidates = 5;
  static constexpr std::string_view kHostAppExtension = "app";

  void send(const FinderConversionRequest& request);
  void launchHostApp(bool activates);
  // The path of the nearest bundle with the extension "app" among the
  // extension's own bundle and its four nearest ancestors, or nothing. Named
  // after the NSURL the macOS shell opens it by.
  std::optional<std::string> hostAppURL();
};

}  // namespace palvin
