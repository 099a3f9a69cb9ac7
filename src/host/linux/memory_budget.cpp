#include "memory_budget.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace palvin::host {

std::uint64_t MemoryBudget::sizeFromEnvironment() {
  constexpr std::uint64_t MiB = 1 << 20;
  if (const char* value = std::getenv("PALVIN_HOST_MEMORY_MIB"); value != nullptr) {
    std::uint64_t mib = 0;
    auto [end, error] = std::from_chars(value, value + std::char_traits<char>::length(value), mib);
    if (error == std::errc() && *end == '\0' && mib > 0 && mib < (1u << 24)) return mib * MiB;
  }
  const long pages = ::sysconf(_SC_PHYS_PAGES), pageSize = ::sysconf(_SC_PAGESIZE);
  const std::uint64_t physical =
      pages > 0 && pageSize > 0 ? std::uint64_t(pages) * std::uint64_t(pageSize) : 0;
  return std::clamp<std::uint64_t>(physical / 4, 256 * MiB, 4096 * MiB);
}

Result<MemoryBudget::Hold> MemoryBudget::reserve(std::uint64_t bytes, const std::string& what,
                                                 const std::atomic<bool>& stopping) {
  if (bytes > size_) {
    return Error{"needs about " + describeBytes(bytes) + " of memory; the host app's budget is " +
                 describeBytes(size_)};
  }
  std::unique_lock lock(mutex_);
  if (used_ + bytes > size_) {
    log_(FinderLog::Level::info, "Waiting for memory: " + what + " needs about " + describeBytes(bytes) +
                                     ", " + describeBytes(used_) + " of " + describeBytes(size_) + " in use");
  }
  // Releases notify; the stop flag is an atomic no one notifies for, so it
  // is looked at often enough for a Cancel to feel immediate.
  while (used_ + bytes > size_) {
    if (stopping.load()) return Error{"stopped"};
    freed_.wait_for(lock, std::chrono::milliseconds(100));
  }
  used_ += bytes;
  log_(FinderLog::Level::debug, "Memory: " + what + " holds " + describeBytes(bytes));
  return Hold(this, bytes, what);
}

void MemoryBudget::release(std::uint64_t bytes, const std::string& what) {
  {
    std::lock_guard lock(mutex_);
    used_ -= bytes;
  }
  log_(FinderLog::Level::debug, "Memory: " + what + " gave back " + describeBytes(bytes));
  freed_.notify_all();
}

std::string describeBytes(std::uint64_t bytes) {
  constexpr double MiB = 1 << 20, GiB = 1 << 30;
  char text[32];
  if (bytes >= GiB) {
    std::snprintf(text, sizeof text, "%.1f GiB", bytes / GiB);
  } else {
    std::snprintf(text, sizeof text, "%.0f MiB", std::max(1.0, bytes / MiB));
  }
  std::string out = text;
  if (out.ends_with(".0 GiB")) out.erase(out.size() - 6, 2);
  return out;
}

double memoryFactor(std::string_view target) {
  // Peak resident memory over the decoded size, measured converting a
  // 10000 x 10000 RGB PNG and a 3000 x 3000 noisy one (the larger ratio,
  // rounded up): JPEG, PNG and TIFF stream by strips, WebP, GIF and HEIC
  // hold the whole image and their encoder's copies.
  if (target == "heic") return 5.5;
  if (target == "webp" || target == "gif") return 3.5;
  return 0.3;
}

}  // namespace palvin::host
