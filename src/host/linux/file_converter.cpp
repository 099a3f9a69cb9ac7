#include "file_converter.h"

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <system_error>

#include "requests/output_file.h"
#include "shared/paths.h"

namespace palvin::host {
namespace {

std::string systemError(int errnum) {
  return std::generic_category().message(errnum);
}

std::string procPath(int fd) {
  return "/proc/self/fd/" + std::to_string(fd);
}

bool sameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// An output under way in the source's folder, written only through `fd`:
// an unnamed file (O_TMPFILE), or where the file system has none, a name of
// this host app's own pattern created exclusively. Nothing ever opens it by
// name again, so swapping a name for a link leads nowhere.
struct Scratch {
  int directory = -1;
  int fd = -1;
  std::string name;  // empty for an unnamed file
  ~Scratch() {
    // Only our own file goes: the name may have been swapped meanwhile.
    struct stat ours {
    }, there{};
    if (!name.empty() && ::fstat(fd, &ours) == 0 &&
        ::fstatat(directory, name.c_str(), &there, AT_SYMLINK_NOFOLLOW) == 0 && sameFile(ours, there)) {
      ::unlinkat(directory, name.c_str(), 0);
    }
    if (fd >= 0) ::close(fd);
    if (directory >= 0) ::close(directory);
  }
};

Result<std::string> open(Scratch& scratch, const std::string& directory, const std::string& name,
                         bool named) {
  scratch.directory = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (scratch.directory < 0) return Error{"cannot write in " + directory + ": " + systemError(errno)};
  scratch.fd = named ? -1 : ::openat(scratch.directory, ".", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (scratch.fd >= 0) return std::string();
  if (!named && errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL && errno != ENOENT) {
    return Error{"cannot write in " + directory + ": " + systemError(errno)};
  }
  // What a killed run left under this very name, if it is ours.
  struct stat left {};
  if (::fstatat(scratch.directory, name.c_str(), &left, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(left.st_mode) &&
      left.st_uid == ::geteuid()) {
    ::unlinkat(scratch.directory, name.c_str(), 0);
  }
  scratch.fd =
      ::openat(scratch.directory, name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (scratch.fd < 0) return Error{"cannot write in " + directory + ": " + systemError(errno)};
  scratch.name = name;
  return std::string();
}

// Gives the scratch file the first free name of "<stem>.<ext>", "<stem>
// 2.<ext>"... without replacing anything: linkat from the descriptor fails
// on an existing name. Each name is announced before it is taken.
Result<std::string> publish(Scratch& scratch, const std::string& directory, const std::string& stem,
                            std::string_view extension, const FinderFileTask& task) {
  struct stat ours {};
  if (::fstat(scratch.fd, &ours) != 0) return Error{systemError(errno)};
  const std::string identity = std::to_string(ours.st_dev) + ":" + std::to_string(ours.st_ino);
  for (int n = 1; n <= 9999; ++n) {
    std::string name = stem + (n > 1 ? " " + std::to_string(n) : "") + "." + std::string(extension);
    struct stat there {};
    if (::fstatat(scratch.directory, name.c_str(), &there, AT_SYMLINK_NOFOLLOW) == 0) continue;
    const std::string path = paths::join(directory, name);
    if (task.announce && !task.announce(path, identity)) return Error{"cannot record the output " + path};
    if (::linkat(AT_FDCWD, procPath(scratch.fd).c_str(), scratch.directory, name.c_str(),
                 AT_SYMLINK_FOLLOW) == 0) {
      return path;
    }
    if (errno == EEXIST) continue;
    // A named file that lost its name can't be linked again: someone removed
    // or swapped it. The output is dropped rather than written anywhere else.
    if (errno == ENOENT && !scratch.name.empty()) {
      return Error{"its temporary file " + scratch.name + " was replaced meanwhile, so nothing was written"};
    }
    // No hard links here (FAT, some shares): the named file is renamed,
    // once it is checked to be still ours. Such file systems have no links.
    int error = errno;
    struct stat named {};
    if (scratch.name.empty() || (error != EPERM && error != EOPNOTSUPP) ||
        ::fstatat(scratch.directory, scratch.name.c_str(), &named, AT_SYMLINK_NOFOLLOW) != 0 ||
        !sameFile(ours, named)) {
      return Error{systemError(error)};
    }
    if (::renameat2(scratch.directory, scratch.name.c_str(), scratch.directory, name.c_str(),
                    RENAME_NOREPLACE) == 0) {
      scratch.name.clear();
      return path;
    }
    if (errno != EEXIST) return Error{systemError(errno)};
  }
  return Error{"too many files named " + stem + " here"};
}

}  // namespace

FileConverter::Seams FileConverter::Seams::fromEnvironment() {
  const char* value = std::getenv("PALVIN_HOST_TEST_SEAM");
  std::string_view seam = value != nullptr ? value : "";
  auto has = [&](std::string_view word) { return seam.find(word) != std::string_view::npos; };
  return {has("before-write"), has("after-publish"), has("named-scratch")};
}

std::string scratchName(const std::string& requestName, std::size_t index) {
  // FNV-1a: the request's name can be as long as a name can be, this can't.
  std::uint64_t hash = 14695981039346656037ull;
  for (unsigned char c : requestName) hash = (hash ^ c) * 1099511628211ull;
  char hex[17];
  std::snprintf(hex, sizeof hex, "%016llx", static_cast<unsigned long long>(hash));
  return ".palvin-" + std::string(hex) + "-" + std::to_string(index) + ".tmp";
}

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
  struct stat sourceInfo {};
  if (::stat(source.c_str(), &sourceInfo) != 0) return failed(systemError(errno));
  // Everything is written in the source's own folder, named there from the
  // source's last component and the catalogue's extension, so no part of a
  // request can lead elsewhere.
  const std::string directory = paths::parent(source);
  Scratch scratch;
  if (auto opened = open(scratch, directory, scratchName(task.requestName, task.index), seams_.namedScratch);
      !opened.ok()) {
    return failed(opened.error());
  }
  if (seams_.beforeWrite) ::raise(SIGSTOP);
  Result<std::string> output = Error{""};
  if (auto done = convert(*conversion, task, scratch.fd, stopping); !done.ok()) {
    output = Error{done.error()};
  } else if (::fchmod(scratch.fd, sourceInfo.st_mode & 0666 & ~umask_) != 0) {
    output = Error{systemError(errno)};  // no wider than its source: a private file stays private
  } else {
    const Format& target = *table_.format(conversion->target);
    output =
        publish(scratch, directory, stemOf(paths::lastComponent(source)), target.extensions.front(), task);
  }
  if (output.ok() && seams_.afterPublish) ::raise(SIGSTOP);
  if (output.ok()) return {source, Status::converted, *output, {}};
  // Interrupted work is not a failure: the request goes back to the queue.
  if (stopping.load()) return {source, Status::pending, {}, {}};
  return failed(output.error());
}

Status FileConverter::convert(const Conversion& conversion, const FinderFileTask& task, int output,
                              const std::atomic<bool>& stopping) const {
  const Format& target = *table_.format(conversion.target);
  switch (conversion.engine) {
    case Engine::libvips:
      return convertImage(task.file.path, target, output, memory_, stopping);
    case Engine::poppler:
      return extractPdfText(task.file.path, output, stopping);
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
      return convertMedia(ffmpeg_, task.file.path, *table_.format(conversion.source), target, output,
                          stopping, progress);
    }
  }
  return Error{"unknown engine"};
}

}  // namespace palvin::host
