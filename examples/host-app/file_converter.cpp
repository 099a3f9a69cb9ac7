#include "file_converter.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <system_error>

#include "shared/paths.h"

namespace palvin::host {
namespace {

std::string systemError(int errnum) { return std::generic_category().message(errnum); }

// A file's name without its last extension ("photo.png" -> "photo"); a name
// that is only an extension keeps it (".png").
std::string stemOf(std::string_view name) {
  std::string_view extension = paths::extension(name);
  return std::string(extension.empty() ? name : name.substr(0, name.size() - extension.size() - 1));
}

// Renames without replacing an existing file. renameat2 where the file system
// has it, else a hard link, which fails the same way on an existing name.
int renameNoReplace(const std::string& from, const std::string& to) {
  if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
  if (errno != EINVAL && errno != ENOSYS) return errno;
  if (::link(from.c_str(), to.c_str()) != 0) return errno;
  ::unlink(from.c_str());
  return 0;
}

}  // namespace

std::optional<std::string> refuseSource(const std::string& path) {
  if (path.find('\0') != std::string::npos) return "the path holds a NUL byte";
  if (path.empty() || path.front() != '/') return "not an absolute path";
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) return systemError(errno);
  if (S_ISREG(info.st_mode)) return std::nullopt;
  if (S_ISDIR(info.st_mode)) return "a directory, not a regular file";
  if (S_ISFIFO(info.st_mode)) return "a FIFO, not a regular file";
  if (S_ISCHR(info.st_mode) || S_ISBLK(info.st_mode)) return "a device, not a regular file";
  return "not a regular file";
}

Result<std::string> publishOutput(const std::string& temporary, const std::string& directory,
                                  const std::string& stem, std::string_view extension) {
  for (int n = 1; n <= 9999; ++n) {
    std::string name = stem;
    if (n > 1) name.append(" ").append(std::to_string(n));
    name.append(".").append(extension);
    std::string path = paths::join(directory, name);
    int error = renameNoReplace(temporary, path);
    if (error == 0) return path;
    if (error != EEXIST) return Error{systemError(error)};
  }
  return Error{"too many files named " + stem + " here"};
}

FinderFileResult FileConverter::operator()(const FinderFileTask& task, const std::atomic<bool>& stopping) const {
  using Status = FinderFileResult::Status;
  auto failed = [&](std::string reason) { return FinderFileResult{task.file.path, Status::failed, {}, std::move(reason)}; };
  const std::string& source = task.file.path;
  if (auto refused = refuseSource(source)) return failed(*refused);
  const Conversion* conversion = table_.find(task.file.sourceFormatId, task.targetFormatId);
  if (conversion == nullptr) {
    return failed("this host app does not convert " + task.file.sourceFormatId + " to " + task.targetFormatId);
  }
  // Everything is written in the source's own folder: the temporary file and
  // the output are named there from the source's last component and the
  // catalogue's extension, so no part of a request can lead elsewhere.
  const std::string directory = paths::parent(source);
  const std::string temporary =
      paths::join(directory, ".palvin-" + stemOf(task.requestName) + "-" + std::to_string(task.index) + ".tmp");
  ::unlink(temporary.c_str());  // what an instance that died left of this very file
  int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0666);
  if (fd < 0) return failed("cannot write in " + directory + ": " + systemError(errno));
  ::close(fd);

  Result<std::string> output = Error{""};
  if (auto done = convert(*conversion, task, temporary, stopping); !done.ok()) {
    output = Error{done.error()};
  } else {
    const Format& target = *table_.format(conversion->target);
    output = publishOutput(temporary, directory, stemOf(paths::lastComponent(source)), target.extensions.front());
  }
  if (output.ok()) return {source, Status::converted, *output, {}};
  ::unlink(temporary.c_str());
  // Interrupted work is not a failure: the request goes back to the queue.
  if (stopping.load()) return {source, Status::pending, {}, {}};
  return failed(output.error());
}

Status FileConverter::convert(const Conversion& conversion, const FinderFileTask& task, const std::string& temporary,
                              const std::atomic<bool>& stopping) const {
  const Format& target = *table_.format(conversion.target);
  switch (conversion.engine) {
    case Engine::libvips:
      return convertImage(task.file.path, target, temporary);
    case Engine::poppler:
      return extractPdfText(task.file.path, temporary);
    case Engine::ffmpeg: {
      int reported = 0;
      auto progress = [&](double fraction) {
        int quarter = static_cast<int>(std::floor(fraction * 4));
        if (quarter <= reported || quarter >= 4) return;
        reported = quarter;
        log_(FinderLog::Level::debug, "Converting " + task.file.path + ": " + std::to_string(quarter * 25) + "%");
      };
      return convertMedia(ffmpeg_, task.file.path, *table_.format(conversion.source), target, temporary, stopping,
                          progress);
    }
  }
  return Error{"unknown engine"};
}

}  // namespace palvin::host
