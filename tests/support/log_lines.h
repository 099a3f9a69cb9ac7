// Reads back what the extension log wrote to a fake platform's log file.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "services/log.h"
#include "support/fake_platform.h"

namespace palvin::testing {

// The file's lines as "[LEVEL] message", timestamps dropped, once every line
// logged so far has been written. A line without a tag (the continuation of a
// message holding line feeds) is kept whole.
inline std::vector<std::string> logLines(const FakePlatform& platform) {
  FinderLog::flush();
  std::vector<std::string> lines;
  auto file = platform.file("/container/finder-extension.log");
  if (!file) return lines;
  std::string_view rest = file->content;
  while (!rest.empty()) {
    auto end = rest.find('\n');
    std::string_view line = rest.substr(0, end);
    rest = end == std::string_view::npos ? std::string_view{} : rest.substr(end + 1);
    auto tag = line.find(" [");
    lines.emplace_back(tag == std::string_view::npos ? line : line.substr(tag + 1));
  }
  return lines;
}

}  // namespace palvin::testing
