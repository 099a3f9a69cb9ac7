// What the host app tells the user on the desktop: whether setting it up
// worked and what to do when not, how a long request is getting on (one
// notification updated in place, "3 of 12 files → WebP", with a Cancel
// action), and how each request ended.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "converters.h"
#include "desktop_notification.h"
#include "requests/request_queue.h"
#include "services/log.h"

namespace palvin::host {

class ConversionNotices {
 public:
  using Logger = std::function<void(FinderLog::Level, const std::string&)>;

  // Shown once a request has run this long.
  static constexpr std::chrono::milliseconds kProgressAfter{2000};

  // Connects to the session bus when one is set; without it every notice is
  // skipped. `log` says why a notice was not shown.
  ConversionNotices(const ConverterTable& table, Logger log);
  ~ConversionNotices();

  // The queue whose request Cancel stops; nullptr before the queue goes.
  void setQueue(FinderRequestQueue* queue);

  // Set-up: ready, with the catalogue's number of formats; or what is wrong
  // and what to do. `logPath` is empty when there is no log yet.
  void ready(std::size_t formats, bool withFfmpeg, const std::string& logPath);
  void problem(const std::string& what, const std::string& todo, const std::string& logPath);

  // The queue's and the converter's hooks: any thread.
  void progress(const std::string& request, const FinderConversionResult& result);
  void fileProgress(const FinderFileTask& task, double fraction);
  void finished(const std::string& request, const FinderConversionResult& result);

 private:
  struct Running {
    std::string request, target;
    std::size_t total = 0, done = 0;
    std::chrono::steady_clock::time_point started;
    std::map<std::size_t, std::pair<std::string, double>> underWay;  // index: file name, fraction
    std::uint32_t id = 0;                                            // of its notification, once shown
    std::string shown;                                               // the text last shown
    bool quiet = false;  // dismissed or cancelled: no more updates
  };

  void tick();
  void actionInvoked(std::uint32_t id, const std::string& key);
  void closed(std::uint32_t id);
  std::uint32_t show(const DesktopNotifier::Notice& notice, std::uint32_t replaces = 0);

  const ConverterTable& table_;
  Logger log_;
  std::mutex showing_;  // one notice at a time: a request's stay in order
  std::mutex mutex_;    // what follows
  std::optional<Running> running_;
  FinderRequestQueue* queue_ = nullptr;
  std::unique_ptr<DesktopNotifier> notifier_;  // last: its thread stops first
};

}  // namespace palvin::host
