#include "terminal_style.h"

#include <unistd.h>

#include <cstdlib>

namespace palvin::tool {
namespace {

std::string wrap(bool enabled, const char* code, std::string_view s) {
  if (!enabled) return std::string(s);
  std::string out = "\x1b[";
  out += code;
  out += 'm';
  out += s;
  out += "\x1b[0m";
  return out;
}

}  // namespace

std::string Style::bold(std::string_view s) const {
  return wrap(enabled, "1", s);
}
std::string Style::dim(std::string_view s) const {
  return wrap(enabled, "2", s);
}
std::string Style::red(std::string_view s) const {
  return wrap(enabled, "31", s);
}
std::string Style::yellow(std::string_view s) const {
  return wrap(enabled, "33", s);
}
std::string Style::green(std::string_view s) const {
  return wrap(enabled, "32", s);
}
std::string Style::cyan(std::string_view s) const {
  return wrap(enabled, "36", s);
}

Style styleForStdout() {
  const char* noColor = std::getenv("NO_COLOR");
  bool noColorSet = noColor != nullptr && noColor[0] != '\0';
  return Style{isatty(STDOUT_FILENO) == 1 && !noColorSet};
}

}  // namespace palvin::tool
