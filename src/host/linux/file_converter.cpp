#include "file_converter.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <system_error>

#include "requests/output_file.h"
#include "shared/paths.h"

namespace palvin::host {
namespace {

std::string systemError(int errnum) {
  return std::generic_category().message(errnum);
}

}  // namespace

FinderFileResult FileConverter::operator()(const FinderFileTask& task,
                                           const std::atomic<bool>& stopping) const {
  using Status = FinderFileResult::Status;
  auto failed = [&](std::string reason) {
    return FinderFileResult{task.file.path, Status::failed, {}, std::move(reason)};
  };
  const std::string& source = task.file.path;
  if (auto refused = refuseSource(source)) return failed(*refused);
  const Conversion* conversion = table_.find(task.file.sourceFormatId, task.targetFormatId);
  if (conversion == nullptr) {
    return failed("this host app does not convert " + task.file.sourceFormatId + " to " +
                  task.targetFormatId);
  }
  // Everything is written in the source's own folder: the temporary file and
  // the output are named there from the source's last component and the
  // catalogue's extension, so no part of a request can lead elsewhere.
  const std::string directory = paths::parent(source);
  const std::string temporary = paths::join(
      directory, ".palvin-" + stemOf(task.requestName) + "-" + std::to_string(task.index) + ".tmp");
  ::unlink(temporary.c_str());  // what an instance that died left of this very file
  int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0666);
  if (fd < 0) return failed("cannot write in " + directory + ": " + systemError(errno));
  ::close(fd);

  Result<std::string> output = Error{""};
  if (auto done = convert(*conversion, task, temporary, stopping); !done.ok()) {
    output = Error{done.error()};
  } else {
    const Format& target = *table_.format(conversion->target);
    output =
        publishOutput(temporary, directory, stemOf(paths::lastComponent(source)), target.extensions.front());
  }
  if (output.ok()) return {source, Status::converted, *output, {}};
  ::unlink(temporary.c_str());
  // Interrupted work is not a failure: the request goes back to the queue.
  if (stopping.load()) return {source, Status::pending, {}, {}};
  return failed(output.error());
}

Status FileConverter::convert(const Conversion& conversion, const FinderFileTask& task,
                              const std::string& temporary, const std::atomic<bool>& stopping) const {
  const Format& target = *table_.format(conversion.target);
  switch (conversion.engine) {
    case Engine::libvips:
      return convertImage(task.file.path, target, temporary, stopping);
    case Engine::poppler:
      return extractPdfText(task.file.path, temporary, stopping);
    case Engine::ffmpeg: {
      int reported = 0;
      auto progress = [&](double fraction) {
        if (progress_) progress_(task, fraction);
        int quarter = static_cast<int>(std::floor(fraction * 4));
        if (quarter <= reported || quarter >= 4) return;
        reported = quarter;
        log_(FinderLog::Level::debug,
             "Converting " + task.file.path + ": " + std::to_string(quarter * 25) + "%");
      };
      return convertMedia(ffmpeg_, task.file.path, *table_.format(conversion.source), target, temporary,
                          stopping, progress);
    }
  }
  return Error{"unknown engine"};
}

}  // namespace palvin::host
