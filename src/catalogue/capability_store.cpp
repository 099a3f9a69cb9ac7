#include "catalogue/capability_store.h"

#include <palvin/identifiers.h>

#include <string>
#include <utility>

#include "services/container.h"
#include "services/log.h"
#include "shared/paths.h"

namespace palvin {

namespace {
constexpr std::string_view kDecodeFailed = "Failed to decode capabilities: ";
}  // namespace

std::shared_ptr<const FinderCapabilities> CapabilityStore::load() {
  auto container = FinderSharedContainer::url();
  if (!container) {
    FinderLog::log(FinderLog::Level::error,
                   "App Group container unavailable: " + std::string(ids::kAppGroupIdentifier));
    return nullptr;
  }

  Platform& platform = currentPlatform();
  const std::string path = paths::join(*container, kFileName);

  // A missing file is the normal state before the host app's first run, so it
  // empties the store without a word in the log. A dangling link is not
  // missing: it has a date and goes on to the read, whose failure is logged,
  // so that the user learns why the menu is gone.
  auto modified = platform.modificationDate(path);
  if (!modified.ok()) {
    clear();
    return nullptr;
  }

  // The date alone is the cache key: the file is read only when it changed,
  // in either direction.
  if (cached_ && cachedModificationDate_ == *modified) return cached_;

  // Read and decode failures keep what is held: the next good file with the
  // held date still hits the cache. They are not remembered, so each call
  // reports them again.
  auto bytes = platform.readFile(path);
  if (!bytes.ok()) {
    FinderLog::log(FinderLog::Level::error, std::string(kDecodeFailed) + bytes.error());
    return nullptr;
  }
  auto decoded = FinderCapabilities::decode(*bytes);
  if (!decoded.ok()) {
    FinderLog::log(FinderLog::Level::error, std::string(kDecodeFailed) + decoded.error());
    return nullptr;
  }

  if (decoded->schemaVersion != kExpectedSchemaVersion) {
    FinderLog::log(FinderLog::Level::warn, "Ignoring capabilities: schema " +
                                               std::to_string(decoded->schemaVersion) + " != expected " +
                                               std::to_string(kExpectedSchemaVersion));
    clear();
    return nullptr;
  }

  cached_ = std::make_shared<const FinderCapabilities>(std::move(*decoded));
  cachedModificationDate_ = *modified;
  FinderLog::log(FinderLog::Level::debug, "Loaded capabilities: " + std::to_string(cached_->formats.size()) +
                                              " formats, " + std::to_string(cached_->conversions.size()) +
                                              " sources");
  return cached_;
}

void CapabilityStore::clear() {
  cached_.reset();
  cachedModificationDate_.reset();
}

}  // namespace palvin
