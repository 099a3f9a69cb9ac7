// The host app's end of the request hand-off, shared by every host app (plain
// POSIX: Linux and macOS). The extension drops "<UUID>.json" files into
// "<container>/requests"; a FinderRequestQueue takes each one exactly once,
// even with several host-app instances running and instances being killed:
//
//   claim    open the file, take an exclusive flock() on it, then rename() it
//            into requests/processing/. The lock belongs to the open file, so
//            it travels with the renamed file and the kernel drops it when
//            the claiming process dies, however it dies;
//   recover  a file in processing/ that nobody holds locked was left by an
//            instance that died: it is taken over, lock first;
//   decode   a request that does not decode, or is no regular file, is moved
//            to requests/failed/ (never deleted), logged, and gets a result
//            document "rejected" with the reason; a path that is not UTF-8
//            fails only its own file;
//   act      the caller's converter is called once per file, in parallel up
//            to `parallelism` files at a time; each file's outcome, and the
//            output it is about to publish, is appended as it comes to a
//            journal, processing/<stem>.journal; the result document
//            "results/<name>" (FinderConversionResult) is written whole at the
//            start, after every 1/32 of the files and at the end, so that
//            its writing grows linearly with the request;
//   share    a request that has run for a slice while others wait goes back
//            to requests/ and resumes after them, so that a small request
//            is not starved by a big one;
//   remove   once every file has its outcome and the document is written,
//            the journal and the claimed file are deleted. A document that
//            can't be written (a full disk) leaves the request claimable.
//
// requestStop() (SIGTERM) lets files under way finish (or cancel, as the
// converter decides), starts no new ones, and puts an unfinished request back
// into requests/; its result document keeps what was done, so the next
// instance converts only the files left. cancel() (the user's Cancel) stops
// the request under way the same way, but ends it: the files left are
// recorded as cancelled.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "requests/conversion_result.h"
#include "requests/request.h"
#include "services/log.h"
#include "shared/result.h"

namespace palvin {

// One file of a claimed request, as handed to the converter. `index` is the
// file's place in the request; with `requestName` it names the file's work
// uniquely, e.g. for a temporary file that a retry must find again.
struct FinderFileTask {
  std::string requestName;
  std::size_t index = 0;
  FinderFileRef file;
  std::string targetFormatId;
  // Called by a converter just before it gives its output the name
  // `outputPath`, with the output's identity ("<device>:<inode>"): the queue
  // records both, so that an instance killed between the two finds the output
  // and does not make a second one. False when it could not be recorded: the
  // output must not be published then.
  std::function<bool(const std::string& outputPath, const std::string& identity)> announce{};
};

class FinderRequestQueue {
 public:
  // Converts one file: `converted` with the output path, `failed` with the
  // reason, or `pending` when it gave up because `stopping` became true. Called
  // from up to `parallelism` threads at once; must not throw.
  using Converter =
      std::function<FinderFileResult(const FinderFileTask& task, const std::atomic<bool>& stopping)>;
  using Logger = std::function<void(FinderLog::Level level, const std::string& message)>;
  // Called once a request has been handled in full, with its result.
  using Finished = std::function<void(const std::string& requestName, const FinderConversionResult& result)>;
  // Called when a request's files are about to start and after each file's
  // outcome, with the result so far, under the queue's lock: keep it short.
  using Progress = Finished;

  struct Options {
    Converter convert;
    Logger log{};
    Finished finished{};
    Progress progress{};
    unsigned parallelism = 1;
    // How long a request runs while others wait before it makes way for
    // them: it goes back to requests/ and resumes after them.
    std::chrono::milliseconds slice{2000};
  };

  FinderRequestQueue(std::string containerRoot, Options options);
  ~FinderRequestQueue();
  FinderRequestQueue(const FinderRequestQueue&) = delete;
  FinderRequestQueue& operator=(const FinderRequestQueue&) = delete;

  const std::string& requestsDirectory() const { return requests_; }
  const std::string& processingDirectory() const { return processing_; }
  const std::string& resultsDirectory() const { return results_; }

  // Creates requests/, requests/processing/, requests/failed/ and results/;
  // the first instance to start removes what killed ones left there.
  Status prepare();

  // Recovers abandoned claims, then claims and handles waiting requests,
  // passing over the directory again until a pass finds nothing (requests
  // may arrive meanwhile) or a stop is asked. Returns the requests handled.
  // Not reentrant: one thread of the process calls it.
  std::size_t processPending();

  // Any thread, async-signal-safe: stop claiming and return unfinished work.
  void requestStop() {
    stopping_.store(true);
    interrupt_.store(true);
  }
  bool stopRequested() const { return stopping_.load(); }

  // Any thread: when `requestName` is the request under way, interrupts its
  // files under way (the converter's `stopping`), starts none of the rest,
  // and ends the request with every file left recorded as cancelled. False
  // when that request is not under way.
  bool cancel(const std::string& requestName);

 private:
  struct Claim;
  bool recoverAbandoned(std::size_t& handled, std::set<std::string>& seen);
  bool claim(const std::string& name, Claim& out);
  // False when the request made way for others and waits in requests/ again.
  bool handle(Claim& claim);
  void setAside(const std::string& name, const std::string& from, const std::string& reason);
  void convertFiles(const std::string& name, const FinderConversionRequest& request,
                    FinderConversionResult& result);
  bool othersWaiting() const;
  FinderConversionResult priorResult(const std::string& name, const FinderConversionRequest& request);
  bool record(const std::string& name, const FinderConversionResult& result);
  std::string journalPath(const std::string& name) const;
  bool journal(const std::string& line);
  void removeLeftovers();
  void log(FinderLog::Level level, const std::string& message) const;

  std::string requests_;
  std::string processing_;
  std::string failed_;
  std::string results_;
  Options options_;
  std::atomic<bool> stopping_{false};
  // What converters see: set by a stop, or by a cancel of the request under way.
  std::atomic<bool> interrupt_{false};
  std::mutex underWayMutex_;
  std::string underWay_;  // the request being converted, empty between requests
  bool cancelled_ = false;
  int instances_ = -1;  // held shared while this queue lives
  int journal_ = -1;    // the request under way's journal, appended under journalMutex_
  std::mutex journalMutex_;
};

}  // namespace palvin
