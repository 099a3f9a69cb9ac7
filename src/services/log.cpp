#include "services/log.h"

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <deque>
#include <mutex>
#include <set>
#include <thread>

#include "platform/platform.h"
#include "services/container.h"
#include "shared/json_writer.h"
#include "shared/paths.h"
#include "shared/threads.h"

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

// How long a wait for the worker lasts without it finishing a line: far
// beyond any append to a local disk, so reached only when the file system
// hangs. Waits end then rather than hang their caller.
constexpr auto kStall = std::chrono::seconds(5);

// The serial queue: one worker thread, tasks in submission order. The worker
// starts with the first task after a stop, so the log can be shut down and
// used again. It blocks every signal, as it runs inside another program.
class Queue {
 public:
  // A line for which no worker can be started is dropped, as a failed append
  // would lose it; the next line tries again.
  void submit(AppendTask task) {
    std::unique_lock lock(mutex_);
    if (!worker_.joinable()) {
      try {
        worker_ = startQuietThread([this, generation = generation_] { run(generation); });
      } catch (...) {
        return;
      }
    }
    tasks_.push_back(std::move(task));
    lock.unlock();
    wake_.notify_one();
  }

  void flush() {
    std::unique_lock lock(mutex_);
    (void)settle(lock, [this] { return tasks_.empty() && writing_.empty(); });
  }

  // A worker stuck on a line is left to end by itself once that line is
  // done, and the lines behind it are dropped.
  void shutdown() {
    std::thread worker;
    bool written = false;
    {
      std::unique_lock lock(mutex_);
      written = settle(lock, [this] { return tasks_.empty() && writing_.empty(); });
      tasks_.clear();
      worker = std::move(worker_);
      ++generation_;
    }
    wake_.notify_all();
    if (!worker.joinable()) return;
    if (written) {
      worker.join();
    } else {
      worker.detach();
    }
  }

  // The platform may be destroyed once this returns: its lines are written,
  // or dropped when the worker stalls. An append through it that is under
  // way is waited for however long it takes, since going on would leave it
  // calling a destroyed platform.
  void retire(Platform& platform) {
    std::unique_lock lock(mutex_);
    auto uses = [&platform](const AppendTask& task) { return task.platform == &platform; };
    bool written = settle(lock, [&] {
      return std::none_of(tasks_.begin(), tasks_.end(), uses) && !writing_.contains(&platform);
    });
    if (!written) std::erase_if(tasks_, uses);
    idle_.wait(lock, [&] { return !writing_.contains(&platform); });
  }

 private:
  // Waits until `done` holds for as long as the worker keeps finishing lines;
  // false when one line took longer than kStall.
  template <typename Done>
  bool settle(std::unique_lock<std::mutex>& lock, Done done) {
    for (;;) {
      const std::uint64_t before = finished_;
      if (!idle_.wait_for(lock, kStall, [&] { return done() || finished_ != before; })) return false;
      if (done()) return true;
    }
  }

  // A worker of an earlier generation, one left stuck by a shutdown, ends
  // after its line.
  void run(std::uint64_t generation) {
    std::unique_lock lock(mutex_);
    for (;;) {
      wake_.wait(lock, [&] { return !tasks_.empty() || generation != generation_; });
      if (generation != generation_) return;
      AppendTask task = std::move(tasks_.front());
      tasks_.pop_front();
      auto writing = writing_.insert(task.platform);
      lock.unlock();
      try {
        append(task);
      } catch (...) {
        // A failed allocation loses this line, never the queue.
      }
      lock.lock();
      writing_.erase(writing);
      ++finished_;
      idle_.notify_all();
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable idle_;
  std::deque<AppendTask> tasks_;
  std::multiset<Platform*> writing_;  // the platforms of the appends under way
  std::thread worker_;
  std::uint64_t generation_ = 0;
  std::uint64_t finished_ = 0;
};

// Made on first use and never destroyed: the worker may still be running when
// the process exits, and waiting tasks are then simply lost.
Queue& queue() {
  static Queue* instance = [] {
    setPlatformRetiredHandler([](Platform& retired) { queue().retire(retired); });
    return new Queue();
  }();
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
    // Before the entry point installs a platform, or after it removed it,
    // there is nowhere to log to.
    Platform* installed = installedPlatform();
    if (installed == nullptr) return;
    Platform& platform = *installed;
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
