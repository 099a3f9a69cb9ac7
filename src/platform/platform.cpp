#include "platform/platform.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace palvin {
namespace {
std::atomic<Platform*> gPlatform{nullptr};
std::atomic<PlatformRetiredHandler> gRetired{nullptr};
}  // namespace

void installPlatform(Platform* platform) {
  Platform* previous = gPlatform.exchange(platform, std::memory_order_acq_rel);
  if (previous == nullptr || previous == platform) return;
  if (PlatformRetiredHandler handler = gRetired.load(std::memory_order_acquire)) handler(*previous);
}

Platform* installedPlatform() {
  return gPlatform.load(std::memory_order_acquire);
}

Platform& currentPlatform() {
  Platform* platform = installedPlatform();
  if (platform == nullptr) {
    // A programming error of the entry point, not a runtime condition.
    std::fputs("palvin: no platform installed\n", stderr);
    std::abort();
  }
  return *platform;
}

void setPlatformRetiredHandler(PlatformRetiredHandler handler) {
  gRetired.store(handler, std::memory_order_release);
}

// The platform it replaces stays alive (it comes back at the end), so it is
// not retired.
ScopedPlatform::ScopedPlatform(Platform& platform)
    : previous_(gPlatform.exchange(&platform, std::memory_order_acq_rel)) {}

ScopedPlatform::~ScopedPlatform() {
  installPlatform(previous_);
}

}  // namespace palvin
