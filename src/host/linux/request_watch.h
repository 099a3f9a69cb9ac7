// Waking up for new requests while the host app keeps running (--watch):
// inotify on requests/ (atomic writes end in a rename: IN_MOVED_TO; a plain
// copy ends in IN_CLOSE_WRITE) and the extension's notification FIFO. Both
// are hints only: the directory is what gets read.
#pragma once

#include <memory>
#include <string>

#include "shared/result.h"

namespace palvin::host {

class RequestWatch {
 public:
  enum class Wake { requests, stop, directoryGone, idle };

  // `stopFd` is readable when the host app must stop (the signal handler's
  // pipe). Without the FIFO the watch still works, on inotify alone;
  // `fifoProblem` then says why.
  static Result<std::unique_ptr<RequestWatch>> start(const std::string& requests, const std::string& fifo,
                                                     int stopFd, std::string* fifoProblem);
  ~RequestWatch();
  RequestWatch(const RequestWatch&) = delete;
  RequestWatch& operator=(const RequestWatch&) = delete;

  // Blocks until something happens, or returns `idle` after `idleSeconds`
  // without anything (0: no limit); pending wake-ups are drained.
  Wake wait(int idleSeconds = 0);
  // Watches the request directory again after it was removed and made anew.
  Status rewatch();

 private:
  RequestWatch(std::string requests, int inotifyFd, int fifoFd, int stopFd)
      : requests_(std::move(requests)), inotifyFd_(inotifyFd), fifoFd_(fifoFd), stopFd_(stopFd) {}
  std::string requests_;
  int inotifyFd_;
  int fifoFd_;
  int stopFd_;
};

}  // namespace palvin::host
