#include "services/container.h"

#include <palvin/identifiers.h>

#include "platform/platform.h"

namespace palvin::FinderSharedContainer {

std::optional<std::string> url() {
  return currentPlatform().containerPath(ids::kAppGroupIdentifier);
}

}  // namespace palvin::FinderSharedContainer
