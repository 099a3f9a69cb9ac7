#include "extension/shell/module_bundle.h"

#include <dlfcn.h>

#include <cstdlib>

#include "shared/paths.h"

namespace palvin::module_bundle {
namespace {

// An address inside the module, for dladdr: the shell is linked statically
// into each module, so this is in the module that asks.
const char kAnchor = 0;

}  // namespace

std::optional<std::string> path() {
  Dl_info info{};
  if (dladdr(&kAnchor, &info) == 0 || info.dli_fname == nullptr) return std::nullopt;
  char* resolved = ::realpath(info.dli_fname, nullptr);
  if (resolved == nullptr) return std::nullopt;
  std::string file(resolved);
  std::free(resolved);
  return paths::parent(file);
}

LinuxPlatform::Options platformOptions() {
  LinuxPlatform::Options options;
  options.bundlePath = path();
  if (options.bundlePath) options.stringsDirectory = paths::join(*options.bundlePath, "Resources");
  return options;
}

}  // namespace palvin::module_bundle
