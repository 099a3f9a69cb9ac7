#include "extension/common/module_bundle.h"

#include <dlfcn.h>

#include <cstdlib>

#include "shared/paths.h"

namespace palvin {
namespace {
const char kAnchor = 0;  // an address inside the module, for dladdr
}  // namespace

std::optional<std::string> moduleBundlePath() {
  Dl_info info{};
  if (dladdr(&kAnchor, &info) == 0 || info.dli_fname == nullptr) return std::nullopt;
  char* resolved = ::realpath(info.dli_fname, nullptr);
  if (resolved == nullptr) return std::nullopt;
  std::string path(resolved);
  std::free(resolved);
  return paths::parent(path);
}

}  // namespace palvin
