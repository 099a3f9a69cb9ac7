#include "platform/platform.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace palvin {
namespace {
std::atomic<Platform*> gPlatform{nullptr};
}  // namespace

void installPlatform(Platform* platform) {
  gPlatform.store(platform, std::memory_order_release);
}

bool hasPlatform() {
  return gPlatform.load(std::memory_order_acquire) != nullptr;
}

Platform& currentPlatform() {
  Platform* platform = gPlatform.load(std::memory_order_acquire);
  if (platform == nullptr) {
    // A programming error of the entry point, not a runtime condition.
    std::fputs("palvin: no platform installed\n", stderr);
    std::abort();
  }
  return *platform;
}

ScopedPlatform::ScopedPlatform(Platform& platform)
    : previous_(gPlatform.exchange(&platform, std::memory_order_acq_rel)) {}

ScopedPlatform::~ScopedPlatform() {
  installPlatform(previous_);
}

}  // namespace palvin
