// Gives the Convert menu its catalogue: "capabilities.json" from the shared
// container, decoded and accepted, cached by the file's modification date.
#pragma once

#include <memory>
#include <optional>

#include "catalogue/capabilities.h"
#include "platform/platform.h"

namespace palvin {

class CapabilityStore {
 public:
  static constexpr std::string_view kFileName = "capabilities.json";
  static constexpr std::int64_t kExpectedSchemaVersion = 1;

  // The current catalogue, or null when there is none. Every failure is logged
  // here. A cache hit hands out the held document itself: it is immutable, so
  // sharing it is as good as a copy and costs nothing.
  std::shared_ptr<const FinderCapabilities> load();

  // What the store holds, for tests and diagnostics.
  const std::shared_ptr<const FinderCapabilities>& cached() const { return cached_; }
  const std::optional<ModificationDate>& cachedModificationDate() const { return cachedModificationDate_; }

 private:
  void clear();

  std::shared_ptr<const FinderCapabilities> cached_;
  std::optional<ModificationDate> cachedModificationDate_;
};

}  // namespace palvin
