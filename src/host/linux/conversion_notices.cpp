#include "conversion_notices.h"

#include <cmath>

#include "finder/finder_sync.h"
#include "shared/paths.h"

namespace palvin::host {
namespace {

using FileStatus = FinderFileResult::Status;
using Notice = DesktopNotifier::Notice;

// A request's failures listed in its notice; the log has them all.
constexpr std::size_t kFailuresShown = 10;

std::string files(std::size_t n) {
  return std::to_string(n) + (n == 1 ? " file" : " files");
}

// "Converted 2 files to WebP, 1 failed".
std::string outcomeSummary(const FinderConversionResult& result, const std::string& target) {
  std::size_t converted = result.count(FileStatus::converted), failed = result.count(FileStatus::failed),
              cancelled = result.count(FileStatus::cancelled);
  std::string summary;
  if (converted > 0) {
    summary = "Converted " + files(converted) + " to " + target;
  } else if (cancelled > 0) {
    summary = "Conversion to " + target + " cancelled";
  } else {
    return "Could not convert " + files(failed) + " to " + target;
  }
  if (failed > 0) summary += ", " + std::to_string(failed) + " failed";
  if (converted > 0 && cancelled > 0) summary += ", " + std::to_string(cancelled) + " cancelled";
  return summary;
}

std::string failures(const FinderConversionResult& result) {
  std::string body;
  std::size_t listed = 0, failed = result.count(FileStatus::failed);
  for (const auto& file : result.files) {
    if (file.status != FileStatus::failed || listed == kFailuresShown) continue;
    body += std::string(paths::lastComponent(file.path)) + ": " + file.error + "\n";
    ++listed;
  }
  if (failed > listed) body += "and " + std::to_string(failed - listed) + " more (see host-app.log)\n";
  if (!body.empty()) body.pop_back();
  return body;
}

}  // namespace

ConversionNotices::ConversionNotices(const ConverterTable& table, Logger log)
    : table_(table), log_(std::move(log)) {
  std::string problem;
  notifier_ = DesktopNotifier::connect(
      {.action = [this](std::uint32_t id, const std::string& key) { actionInvoked(id, key); },
       .closed = [this](std::uint32_t id) { closed(id); },
       .tick = [this] { tick(); }},
      &problem);
  if (!problem.empty()) log_(FinderLog::Level::warn, "No desktop notifications: " + problem);
}

ConversionNotices::~ConversionNotices() {
  if (!notifier_) return;
  // A request returned to the queue by a stop leaves no Cancel behind.
  std::uint32_t left = 0;
  {
    std::lock_guard showing(showing_);
    std::lock_guard lock(mutex_);
    if (running_ && !running_->quiet) left = running_->id;
    if (running_) running_->quiet = true;
  }
  if (left != 0) notifier_->close(left);
}

void ConversionNotices::setQueue(FinderRequestQueue* queue) {
  std::lock_guard lock(mutex_);
  queue_ = queue;
}

std::uint32_t ConversionNotices::show(const Notice& notice, std::uint32_t replaces) {
  if (!notifier_) return 0;
  auto shown = notifier_->show(notice, replaces);
  if (shown.ok()) return *shown;
  log_(FinderLog::Level::warn, "Notification not shown: " + shown.error());
  return 0;
}

void ConversionNotices::ready(std::size_t formats, bool withFfmpeg, const std::string& logPath) {
  std::string body = "It converts " + std::to_string(formats) + " formats: choose \xE2\x80\x9C" +
                     std::string(FinderSync::kDefaultMenuTitle) +
                     "\xE2\x80\x9D on files in your file manager.";
  if (!withFfmpeg) body += "\nAudio and video need ffmpeg: install it, and the next conversion offers them.";
  show({"PalvinHost is ready", body + "\nLog: " + logPath, "emblem-default"});
}

void ConversionNotices::problem(const std::string& what, const std::string& todo,
                                const std::string& logPath) {
  std::string body = what + "\n" + todo;
  if (!logPath.empty()) body += "\nLog: " + logPath;
  show({"PalvinHost is not set up", body, "dialog-error"});
}

void ConversionNotices::progress(const std::string& request, const FinderConversionResult& result) {
  if (!notifier_) return;
  std::lock_guard lock(mutex_);
  if (!running_ || running_->request != request) {
    const Format* target = table_.format(result.targetFormatId);
    running_.emplace();
    running_->request = request;
    running_->target = target != nullptr ? std::string(target->displayName) : result.targetFormatId;
    running_->started = std::chrono::steady_clock::now();
  }
  running_->total = result.files.size();
  running_->done = running_->total - result.count(FileStatus::pending);
  std::erase_if(running_->underWay, [&](const auto& entry) {
    return result.files.at(entry.first).status != FileStatus::pending;
  });
}

void ConversionNotices::fileProgress(const FinderFileTask& task, double fraction) {
  if (!notifier_) return;
  std::lock_guard lock(mutex_);
  if (running_ && running_->request == task.requestName) {
    running_->underWay[task.index] = {std::string(paths::lastComponent(task.file.path)), fraction};
  }
}

// On the notifier's thread: the progress notice of a request that has run
// long enough, whenever its text changes.
void ConversionNotices::tick() {
  std::lock_guard showing(showing_);
  Notice notice{"", "", "", {{"cancel", "Cancel"}}, "transfer", /*persistent=*/true};
  std::uint32_t replaces = 0;
  {
    std::lock_guard lock(mutex_);
    if (!running_ || running_->quiet || std::chrono::steady_clock::now() - running_->started < kProgressAfter)
      return;
    notice.summary = std::to_string(running_->done) + " of " + files(running_->total) + " \xE2\x86\x92 " +
                     running_->target;
    for (const auto& [index, file] : running_->underWay) {
      if (!notice.body.empty()) notice.body += "\n";
      notice.body +=
          file.first + ": " + std::to_string(static_cast<int>(std::floor(file.second * 100))) + "%";
    }
    if (notice.summary + "\n" + notice.body == running_->shown) return;
    running_->shown = notice.summary + "\n" + notice.body;
    replaces = running_->id;
  }
  std::uint32_t id = show(notice, replaces);
  std::lock_guard lock(mutex_);
  if (!running_) return;
  running_->id = id;
  // Not shown: no more tries, and no warning a second, for this request.
  if (id == 0) running_->quiet = true;
}

void ConversionNotices::actionInvoked(std::uint32_t id, const std::string& key) {
  std::lock_guard lock(mutex_);
  if (key != "cancel" || !running_ || running_->id != id) return;
  running_->quiet = true;
  if (queue_ != nullptr) queue_->cancel(running_->request);
}

void ConversionNotices::closed(std::uint32_t id) {
  std::lock_guard lock(mutex_);
  if (running_ && running_->id == id) running_->quiet = true;
}

void ConversionNotices::finished(const std::string& request, const FinderConversionResult& result) {
  if (!result.rejected.empty()) {
    // A request that can't be read says so, or the user waits for nothing.
    show({"A conversion request was rejected",
          request + ": " + result.rejected,
          "dialog-error",
          {},
          "transfer.error"});
    return;
  }
  const Format* format = table_.format(result.targetFormatId);
  std::size_t converted = result.count(FileStatus::converted), failed = result.count(FileStatus::failed);
  Notice notice{
      outcomeSummary(result, format != nullptr ? std::string(format->displayName) : result.targetFormatId),
      failures(result),
      failed == 0 ? "emblem-default" : "dialog-warning",
      {},
      converted == 0 && failed > 0 ? "transfer.error" : "transfer.complete"};
  log_(FinderLog::Level::debug, "Request " + request + " done: " + notice.summary);
  if (!notifier_) return;
  std::lock_guard showing(showing_);
  std::uint32_t replaces = 0;
  {
    std::lock_guard lock(mutex_);
    if (running_ && running_->request == request) replaces = running_->id;
    running_.reset();
  }
  if (!result.files.empty()) {
    show(notice, replaces);
  } else if (replaces != 0) {
    notifier_->close(replaces);
  }
}

}  // namespace palvin::host
