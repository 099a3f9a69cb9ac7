// Where a file manager's extension module finds its bundle: the directory
// holding the module's real file. Installed, the file manager's extension
// directory holds a link to the module inside the host app's bundle, so the
// host app is found by the same walk up from the bundle as from the tool.
#pragma once

#include <optional>
#include <string>

#include "platform/linux_platform.h"

namespace palvin::module_bundle {

// The directory of the real file of the module this code is linked into, or
// nothing when the loader can't tell.
std::optional<std::string> path();

// The platform's settings for a module: its bundle, and the menu titles'
// translations in the bundle's Resources.
LinuxPlatform::Options platformOptions();

}  // namespace palvin::module_bundle
