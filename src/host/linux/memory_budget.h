// One memory budget for the whole host app, shared by its parallel workers:
// every image conversion reserves what it will take before decoding, so two
// large images convert one after the other instead of exhausting memory
// together, and one that could never fit is refused with a reason.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>

#include "services/log.h"
#include "shared/result.h"

namespace palvin::host {

class MemoryBudget {
 public:
  using Logger = std::function<void(FinderLog::Level, const std::string&)>;

  // What a reservation holds until it ends.
  class Hold {
   public:
    Hold(MemoryBudget* budget, std::uint64_t bytes, std::string what)
        : budget_(budget), bytes_(bytes), what_(std::move(what)) {}
    Hold(Hold&& other) noexcept
        : budget_(other.budget_), bytes_(other.bytes_), what_(std::move(other.what_)) {
      other.budget_ = nullptr;
    }
    Hold& operator=(Hold&&) = delete;
    ~Hold() {
      if (budget_ != nullptr) budget_->release(bytes_, what_);
    }

   private:
    MemoryBudget* budget_;
    std::uint64_t bytes_;
    std::string what_;
  };

  MemoryBudget(std::uint64_t bytes, Logger log) : size_(bytes), log_(std::move(log)) {}

  // $PALVIN_HOST_MEMORY_MIB, else a quarter of the machine's memory, from
  // 256 MiB to 4 GiB.
  static std::uint64_t sizeFromEnvironment();

  // Waits until `bytes` fit beside what the other workers hold; refuses at
  // once what would not fit the whole budget, and gives up when `stopping`
  // is set. `what` names the file in the log.
  Result<Hold> reserve(std::uint64_t bytes, const std::string& what, const std::atomic<bool>& stopping);

  std::uint64_t size() const { return size_; }

 private:
  void release(std::uint64_t bytes, const std::string& what);

  const std::uint64_t size_;
  Logger log_;
  std::mutex mutex_;
  std::condition_variable freed_;
  std::uint64_t used_ = 0;
};

// "300 MiB", "1.5 GiB".
std::string describeBytes(std::uint64_t bytes);

// What converting to `target` costs, as a multiple of the decoded image's
// size (width x height x bands x bytes a band).
double memoryFactor(std::string_view target);

}  // namespace palvin::host
