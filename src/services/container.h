// Where the extension and the host app meet: the app group container.
#pragma once

#include <optional>
#include <string>

namespace palvin::FinderSharedContainer {

// The path of the container's root directory, or nothing when the platform
// gives none. Named after the container URL Foundation hands out. Asked afresh
// on every call, so a container that comes or goes is seen.
std::optional<std::string> url();

}  // namespace palvin::FinderSharedContainer
