// One file of a request, from the untrusted request to a finished output:
// the checks, the engine, and the output beside the source, written through
// a descriptor of its own and published without replacing anything.
#pragma once

#include <sys/stat.h>

#include <atomic>
#include <functional>
#include <optional>
#include <string>

#include "converters.h"
#include "requests/request_queue.h"
#include "services/log.h"

namespace palvin::host {

class FileConverter {
 public:
  using Logger = std::function<void(FinderLog::Level, const std::string&)>;
  // How far a file under way is, 0 to 1, where its engine can tell (ffmpeg).
  using FileProgress = std::function<void(const FinderFileTask& task, double fraction)>;

  // For tests: $PALVIN_HOST_TEST_SEAM names points where the host app stops
  // itself (SIGSTOP) for a test to act, "before-write" (the output's file is
  // open) and "after-publish" (it has its name, not yet recorded), and
  // "named-scratch" to use the named scratch file of file systems without
  // unnamed ones.
  struct Seams {
    bool beforeWrite = false, afterPublish = false, namedScratch = false;
    static Seams fromEnvironment();
  };

  FileConverter(const ConverterTable& table, std::string ffmpeg, Logger log, FileProgress progress,
                Seams seams, MemoryBudget& memory)
      : table_(table),
        ffmpeg_(std::move(ffmpeg)),
        log_(std::move(log)),
        progress_(std::move(progress)),
        seams_(seams),
        memory_(memory) {
    // Read once, before any worker runs: umask() can only be read by setting it.
    umask_ = ::umask(077);
    ::umask(umask_);
  }

  // Never throws. `converted` with the output path, `failed` with the reason,
  // `pending` when `stopping` interrupted it.
  FinderFileResult operator()(const FinderFileTask& task, const std::atomic<bool>& stopping) const;

 private:
  Status convert(const Conversion& conversion, const FinderFileTask& task, int output,
                 const std::atomic<bool>& stopping) const;

  const ConverterTable& table_;
  std::string ffmpeg_;
  Logger log_;
  FileProgress progress_;
  Seams seams_;
  MemoryBudget& memory_;
  mode_t umask_ = 022;
};

// The name of the file an output is written to where the file system has no
// unnamed files: ".palvin-<hash of the request name>-<index>.tmp", short
// whatever the request's name.
std::string scratchName(const std::string& requestName, std::size_t index);

}  // namespace palvin::host
