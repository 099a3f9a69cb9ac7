// Following one directory's entries with inotify.
#pragma once

#include <csignal>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "shared/result.h"

namespace palvin::tool {

// Runs until a time limit passes or SIGINT/SIGTERM arrives; both end run()
// normally instead of the process.
class DirectoryWatch {
 public:
  // Blocks SIGINT and SIGTERM from here on, so that run() receives them.
  static Result<std::unique_ptr<DirectoryWatch>> start(const std::string& directory,
                                                       std::uint32_t inotifyEvents);
  ~DirectoryWatch();
  DirectoryWatch(const DirectoryWatch&) = delete;
  DirectoryWatch& operator=(const DirectoryWatch&) = delete;

  // Calls `onChange` with the names of the entries that changed, once per
  // batch of events; an empty name means events were lost. False when it
  // stopped because the directory was removed or moved away.
  bool run(std::optional<double> timeoutSeconds,
           const std::function<void(const std::vector<std::string>&)>& onChange);

 private:
  DirectoryWatch(int inotifyFd, int signalFd, sigset_t previousMask);
  int inotifyFd_;
  int signalFd_;
  sigset_t previousMask_;
};

}  // namespace palvin::tool
