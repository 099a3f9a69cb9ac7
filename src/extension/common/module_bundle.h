// Where a file manager's module finds its bundle, and from it the host app.
#pragma once

#include <optional>
#include <string>

namespace palvin {

// The directory holding the real file of the module this code is linked into
// (statically, as every file manager's module links it), links resolved.
// Installed, the file manager's plugin directory holds a link to the module
// inside the host app's bundle, so the host app is found by the same walk up
// from the bundle as from the tool. Nothing when the module can't be named.
std::optional<std::string> moduleBundlePath();

}  // namespace palvin
