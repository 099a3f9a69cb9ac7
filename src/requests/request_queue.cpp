#include "requests/request_queue.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <mutex>
#include <set>
#include <system_error>
#include <thread>

#include "platform/platform.h"
#include "shared/paths.h"

namespace palvin {
namespace {

using Level = FinderLog::Level;

// Request documents are a few kilobytes; anything far larger is not one.
constexpr std::size_t kMaxRequestSize = 16u << 20;

std::string describe(std::string_view path, int errnum) {
  return std::string(path) + ": " + std::generic_category().message(errnum);
}

bool sameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

Result<std::string> readAll(int fd, const std::string& path) {
  std::string bytes;
  char buffer[16384];
  for (;;) {
    ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return Error{describe(path, errno)};
    if (n == 0) return bytes;
    bytes.append(buffer, static_cast<std::size_t>(n));
    if (bytes.size() > kMaxRequestSize) return Error{path + ": larger than a request can be"};
  }
}

}  // namespace

// A request this instance holds: the open, locked file and where it is now.
struct FinderRequestQueue::Claim {
  std::string name;
  int fd = -1;
  bool recovered = false;
  ~Claim() {
    if (fd >= 0) ::close(fd);  // drops the lock
  }
};

FinderRequestQueue::FinderRequestQueue(std::string containerRoot, Options options)
    : requests_(requestDirectory(containerRoot)),
      processing_(paths::join(requests_, kProcessingDirectoryName)),
      failed_(paths::join(requests_, kFailedDirectoryName)),
      results_(paths::join(containerRoot, kResultsDirectoryName)),
      options_(std::move(options)) {
  if (options_.parallelism == 0) options_.parallelism = 1;
}

void FinderRequestQueue::log(Level level, const std::string& message) const {
  if (options_.log) options_.log(level, message);
}

Status FinderRequestQueue::prepare() {
  for (const std::string* directory : {&processing_, &failed_, &results_}) {
    if (auto created = currentPlatform().createDirectories(*directory); !created.ok()) return created;
  }
  return success();
}

std::size_t FinderRequestQueue::processPending() {
  std::size_t handled = 0;
  // Each name once per call: a request that can't be moved out of
  // processing/ (into failed/, say) would otherwise be recovered forever.
  std::set<std::string> seen;
  for (bool found = true; found && !stopRequested();) {
    found = recoverAbandoned(handled, seen);
    auto names = listRequestFileNames(requests_);
    if (!names.ok()) {
      log(Level::error, "Cannot read requests: " + names.error());
      break;
    }
    for (const auto& name : *names) {
      if (stopRequested()) break;
      Claim claimed;
      if (seen.contains(name) || !claim(name, claimed)) continue;
      seen.insert(name);
      found = true;
      handle(claimed);
      ++handled;
    }
  }
  return handled;
}

// The lock is taken before the rename, on the file still in requests/, so a
// file in processing/ is always locked while its claimer lives. A second
// instance that opened the same file meanwhile waits for nothing: its lock
// attempt fails, or it gets the lock only after the first one is done with
// the file, and then finds the name gone.
bool FinderRequestQueue::claim(const std::string& name, Claim& out) {
  const std::string waiting = paths::join(requests_, name);
  int fd = ::open(waiting.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) {
    if (errno != ENOENT) log(Level::error, "Cannot claim " + describe(waiting, errno));
    return false;
  }
  out.fd = fd;
  out.name = name;
  if (::flock(fd, LOCK_EX | LOCK_NB) != 0) return false;
  struct stat opened {
  }, current{};
  if (::fstat(fd, &opened) != 0 || ::lstat(waiting.c_str(), &current) != 0 || !sameFile(opened, current)) {
    return false;  // taken and finished by another instance meanwhile
  }
  if (::rename(waiting.c_str(), paths::join(processing_, name).c_str()) != 0) {
    if (errno != ENOENT) log(Level::error, "Cannot claim " + describe(waiting, errno));
    return false;
  }
  return true;
}

// A claim whose lock nobody holds any more: its instance died. Returns true
// when it took over anything.
bool FinderRequestQueue::recoverAbandoned(std::size_t& handled, std::set<std::string>& seen) {
  auto names = listRequestFileNames(processing_);
  if (!names.ok()) return false;
  bool any = false;
  for (const auto& name : *names) {
    if (stopRequested()) break;
    if (!seen.insert(name).second) continue;
    const std::string path = paths::join(processing_, name);
    Claim claimed;
    claimed.name = name;
    claimed.recovered = true;
    claimed.fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY);
    if (claimed.fd < 0 || ::flock(claimed.fd, LOCK_EX | LOCK_NB) != 0) continue;
    struct stat opened {
    }, current{};
    if (::fstat(claimed.fd, &opened) != 0 || ::lstat(path.c_str(), &current) != 0 ||
        !sameFile(opened, current)) {
      continue;  // finished and removed by its owner meanwhile
    }
    log(Level::warn, "Recovered request " + name + " left in processing/ by an instance that stopped");
    any = true;
    handle(claimed);
    ++handled;
  }
  return any;
}

void FinderRequestQueue::setAside(const Claim& claim, const std::string& reason) {
  log(Level::error, "Rejected request " + claim.name + ": " + reason);
  const std::string claimed = paths::join(processing_, claim.name);
  if (::rename(claimed.c_str(), paths::join(failed_, claim.name).c_str()) != 0) {
    log(Level::error, "Cannot move aside " + describe(claimed, errno));
  }
}

void FinderRequestQueue::handle(Claim& claim) {
  const std::string claimed = paths::join(processing_, claim.name);
  struct stat info {};
  if (::fstat(claim.fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    setAside(claim, "not a regular file");
    return;
  }
  auto bytes = readAll(claim.fd, claimed);
  auto request = bytes.ok() ? FinderConversionRequest::decode(*bytes) : Error{bytes.error()};
  if (!request.ok()) {
    setAside(claim, request.error());
    return;
  }
  FinderConversionResult result = priorResult(claim.name, *request);
  {
    std::lock_guard lock(underWayMutex_);
    underWay_ = claim.name;
    cancelled_ = false;
    // Cleared before the stop flag is read, so that a stop coming in between
    // is not lost.
    interrupt_.store(false);
    if (stopRequested()) interrupt_.store(true);
  }
  convertFiles(claim.name, *request, result);
  bool cancelled;
  {
    std::lock_guard lock(underWayMutex_);
    underWay_.clear();
    cancelled = cancelled_;
  }
  using FileStatus = FinderFileResult::Status;
  if (cancelled) {
    for (auto& file : result.files) {
      if (file.status == FileStatus::pending) file.status = FileStatus::cancelled;
    }
    record(claim.name, result);
  }

  std::size_t left = result.count(FileStatus::pending);
  if (left > 0) {
    // Stopped: back to the queue, in a state the next instance resumes from.
    if (::rename(claimed.c_str(), paths::join(requests_, claim.name).c_str()) != 0) {
      log(Level::error, "Cannot return " + describe(claimed, errno));
    } else {
      log(Level::info, "Returned request " + claim.name + " to requests/: " + std::to_string(left) + " of " +
                           std::to_string(result.files.size()) + " file(s) left");
    }
    return;
  }
  if (::unlink(claimed.c_str()) != 0) log(Level::error, "Cannot remove " + describe(claimed, errno));
  std::string counts = std::to_string(result.count(FileStatus::converted)) + " converted, " +
                       std::to_string(result.count(FileStatus::failed)) + " failed";
  // A cancel that came as the last file ended cancelled nothing.
  if (std::size_t stopped = result.count(FileStatus::cancelled))
    counts += ", " + std::to_string(stopped) + " cancelled";
  log(Level::info, "Handled request " + claim.name + ": " + std::to_string(result.files.size()) +
                       " file(s) \xE2\x86\x92 " + result.targetFormatId + ", " + counts);
  if (options_.finished) options_.finished(claim.name, result);
}

bool FinderRequestQueue::cancel(const std::string& requestName) {
  std::lock_guard lock(underWayMutex_);
  if (underWay_.empty() || underWay_ != requestName) return false;
  cancelled_ = true;
  interrupt_.store(true);
  log(Level::info, "Cancelling request " + requestName);
  return true;
}

// What an earlier instance already did for this request, when it was returned
// or its instance died: finished files keep their outcome and are not redone.
FinderConversionResult FinderRequestQueue::priorResult(const std::string& name,
                                                       const FinderConversionRequest& request) {
  FinderConversionResult result{request.targetFormatId, {}};
  for (const auto& file : request.files)
    result.files.push_back({file.path, FinderFileResult::Status::pending, {}, {}});
  auto bytes = currentPlatform().readFile(paths::join(results_, name));
  if (!bytes.ok()) return result;
  auto prior = FinderConversionResult::decode(*bytes);
  if (!prior.ok() || prior->targetFormatId != result.targetFormatId ||
      prior->files.size() != result.files.size()) {
    return result;
  }
  for (std::size_t i = 0; i < result.files.size(); ++i) {
    if (prior->files[i].path == result.files[i].path) result.files[i] = prior->files[i];
  }
  return result;
}

// The one place the result document is written; the progress callback sees
// each version written.
void FinderRequestQueue::record(const std::string& name, const FinderConversionResult& result) {
  auto bytes = result.encode();
  Status written = bytes.ok() ? currentPlatform().writeFileAtomically(paths::join(results_, name), *bytes)
                              : Status(Error{bytes.error()});
  if (!written.ok()) log(Level::error, "Cannot write result: " + written.error());
  if (options_.progress) options_.progress(name, result);
}

void FinderRequestQueue::convertFiles(const std::string& name, const FinderConversionRequest& request,
                                      FinderConversionResult& result) {
  std::vector<std::size_t> todo;
  for (std::size_t i = 0; i < result.files.size(); ++i) {
    if (result.files[i].status == FinderFileResult::Status::pending) todo.push_back(i);
  }
  std::mutex mutex;
  // Recorded before the first file, so that the request's progress shows
  // from its start, and after every file, so that a killed instance's
  // successor redoes only the files that had no outcome yet.
  record(name, result);
  auto recordFile = [&](std::size_t index, FinderFileResult outcome) {
    outcome.path = request.files[index].path;
    // Every outcome must read back: a converter's empty answer is a failure.
    if (outcome.status == FinderFileResult::Status::converted && outcome.outputPath.empty()) {
      outcome = {{}, FinderFileResult::Status::failed, {}, "the converter named no output"};
      outcome.path = request.files[index].path;
    }
    if (outcome.status == FinderFileResult::Status::failed && outcome.error.empty()) outcome.error = "failed";
    if (outcome.status == FinderFileResult::Status::failed) {
      log(Level::error,
          "Cannot convert " + outcome.path + " to " + request.targetFormatId + ": " + outcome.error);
    }
    std::lock_guard lock(mutex);
    result.files[index] = std::move(outcome);
    record(name, result);
  };
  std::atomic<std::size_t> next{0};
  auto work = [&] {
    while (!interrupt_.load()) {
      std::size_t k = next.fetch_add(1);
      if (k >= todo.size()) return;
      std::size_t index = todo[k];
      FinderFileTask task{name, index, request.files[index], request.targetFormatId};
      FinderFileResult outcome;
      try {
        outcome = options_.convert(task, interrupt_);
      } catch (const std::exception& e) {
        outcome = {{}, FinderFileResult::Status::failed, {}, e.what()};
      }
      if (outcome.status != FinderFileResult::Status::pending) recordFile(index, std::move(outcome));
    }
  };
  std::vector<std::thread> helpers;
  std::size_t wanted = std::min<std::size_t>(options_.parallelism, todo.size());
  for (std::size_t i = 1; i < wanted; ++i) {
    try {
      helpers.emplace_back(work);
    } catch (const std::system_error&) {
      break;  // fewer threads, same work
    }
  }
  work();
  for (auto& helper : helpers) helper.join();
}

}  // namespace palvin
