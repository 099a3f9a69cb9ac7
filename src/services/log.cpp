#include "services/log.h"

#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <deque>
#include <mutex>
#include <thread>

#include "platform/platform.h"
#include "services/container.h"
#include "shared/json_writer.h"
#include "shared/paths.h"

namespace palvin::FinderLog {
namespace {

struct AppendTask {
  Platform* platform;
  std::string path;
  std::string line;
};

// Appends one line; every failure is swallowed, as nothing may report a
// failure of the log. The first line of a missing file is an atomic
// whole-file write rather than an append.
void append(const AppendTask& task) {
  Platform& platform = *task.platform;
  if (!json::isValidUtf8(task.line)) return;
  auto file = platform.openForWriting(task.path);
  if (!file.ok()) {
    (void)platform.createDirectories(paths::parent(task.path));
    (void)platform.writeFileAtomically(task.path, task.line);
    return;
  }
  WritableFile& handle = **file;
  auto end = handle.seekToEnd();
  std::uint64_t offset = end.ok() ? *end : 0;
  // A process killed inside an append leaves the file ending in a torn line.
  // The new line starts on a line of its own, so only the torn one is lost.
  // One byte read per line, on this queue: callers never wait for it.
  std::string_view line = task.line;
  std::string fresh;
  if (offset > 0) {
    auto last = handle.readTail(1);
    if (last.ok() && !last->empty() && last->back() != '\n') {
      fresh.reserve(task.line.size() + 1);
      fresh += '\n';
      fresh += task.line;
      line = fresh;
    }
  }
  (void)handle.write(line);
  // Only the kept tail is read back, so a file of any size is trimmed.
  if (offset + line.size() > kTrimThreshold) {
    auto kept = handle.readTail(kTrimKeep);
    if (kept.ok()) (void)platform.writeFileAtomically(task.path, *kept);
  }
  (void)handle.close();
}

// The serial queue: one worker thread, tasks in submission order. The worker
// starts with the first task after a stop, so the log can be shut down and
// used again.
class Queue {
 public:
  void submit(AppendTask task) {
    {
      std::lock_guard lock(mutex_);
      tasks_.push_back(std::move(task));
      // During a shutdown the line waits for the worker started after it.
      if (!worker_.joinable() && !stopping_) worker_ = std::thread([this] { run(); });
    }
    wake_.notify_one();
  }

  void flush() {
    std::unique_lock lock(mutex_);
    idle_.wait(lock, [this] { return tasks_.empty() && !busy_; });
  }

  void shutdown() {
    std::thread worker;
    {
      std::unique_lock lock(mutex_);
      idle_.wait(lock, [this] { return tasks_.empty() && !busy_; });
      stopping_ = true;
      worker = std::move(worker_);
    }
    wake_.notify_all();
    if (worker.joinable()) worker.join();
    std::lock_guard lock(mutex_);
    stopping_ = false;
    // A line logged during the stop is not left without a worker.
    if (!tasks_.empty() && !worker_.joinable()) worker_ = std::thread([this] { run(); });
  }

 private:
  void run() {
    std::unique_lock lock(mutex_);
    for (;;) {
      wake_.wait(lock, [this] { return !tasks_.empty() || stopping_; });
      if (tasks_.empty()) return;
      AppendTask task = std::move(tasks_.front());
      tasks_.pop_front();
      busy_ = true;
      lock.unlock();
      try {
        append(task);
      } catch (...) {
        // A failed allocation loses this line, never the queue.
      }
      lock.lock();
      busy_ = false;
      if (tasks_.empty()) idle_.notify_all();
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable idle_;
  std::deque<AppendTask> tasks_;
  std::thread worker_;
  bool busy_ = false;
  bool stopping_ = false;
};

// Made on first use and never destroyed: the worker may still be running when
// the process exits, and waiting tasks are then simply lost.
Queue& queue() {
  static Queue* instance = new Queue();
  return *instance;
}

UnifiedLogType unifiedType(Level level) {
  switch (level) {
    case Level::debug:
      return UnifiedLogType::debug;
    case Level::info:
      return UnifiedLogType::info;
    case Level::warn:
    case Level::error:
      return UnifiedLogType::error;
  }
  return UnifiedLogType::error;
}

}  // namespace

std::string_view tag(Level level) {
  switch (level) {
    case Level::debug:
      return "DEBUG";
    case Level::info:
      return "INFO";
    case Level::warn:
      return "WARN";
    case Level::error:
      return "ERROR";
  }
  return "ERROR";
}

std::string formatTimestamp(std::chrono::system_clock::time_point when) {
  using namespace std::chrono;
  auto millis = floor<milliseconds>(when);
  auto secs = floor<seconds>(millis);
  auto ms = (millis - secs).count();
  std::time_t t = system_clock::to_time_t(secs);
  std::tm tm{};
  gmtime_r(&t, &tm);
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", tm.tm_year + 1900,
                tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<int>(ms));
  return buffer;
}

std::string formatLine(std::chrono::system_clock::time_point when, Level level, std::string_view message) {
  std::string line = formatTimestamp(when);
  line.reserve(line.size() + message.size() + 10);
  line += " [";
  line += tag(level);
  line += "] ";
  line += message;
  line += '\n';
  return line;
}

void log(Level level, std::string_view message) {
  try {
    Platform& platform = currentPlatform();
    UnifiedLogType type = unifiedType(level);
    if (platform.unifiedLogEnabled(type)) platform.unifiedLog(type, message);
    auto container = FinderSharedContainer::url();
    if (!container) return;
    queue().submit(
        {&platform, paths::join(*container, kFileName), formatLine(platform.now(), level, message)});
  } catch (...) {
    // Logging never fails towards its caller.
  }
}

void flush() {
  queue().flush();
}

void shutdown() {
  queue().shutdown();
}

}  // namespace palvin::FinderLog
