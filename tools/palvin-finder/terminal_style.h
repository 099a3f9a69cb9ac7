// Terminal styling for the tool's output.
#pragma once

#include <string>
#include <string_view>

namespace palvin::tool {

// Styles only when standard output is a terminal and NO_COLOR is unset.
struct Style {
  bool enabled;
  std::string bold(std::string_view s) const;
  std::string dim(std::string_view s) const;
  std::string red(std::string_view s) const;
  std::string yellow(std::string_view s) const;
  std::string green(std::string_view s) const;
  std::string cyan(std::string_view s) const;
};
Style styleForStdout();

}  // namespace palvin::tool
