#include "host/output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "shared/paths.h"

namespace palvin::host {
namespace {

std::string systemError(int errnum) { return std::generic_category().message(errnum); }

// Takes `to` only if no file has that name: a hard link fails on an existing
// name atomically. File systems without hard links (FAT, exFAT, some network
// shares) get an exclusively created placeholder that the rename replaces.
int moveNoReplace(const std::string& from, const std::string& to) {
  if (::link(from.c_str(), to.c_str()) == 0) {
    ::unlink(from.c_str());
    return 0;
  }
  if (errno == EEXIST) return EEXIST;
  int placeholder = ::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0644);
  if (placeholder < 0) return errno;
  ::close(placeholder);
  if (::rename(from.c_str(), to.c_str()) != 0) {
    int error = errno;
    ::unlink(to.c_str());
    return error;
  }
  return 0;
}

}  // namespace

std::optional<std::string> refuseSource(const std::string& path) {
  if (path.find('\0') != std::string::npos) return "the path holds a NUL byte";
  if (path.empty() || path.front() != '/') return "not an absolute path";
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) {
    if (errno == EPERM || errno == EACCES) {
      return systemError(errno) + " (allow PalvinHost to read this folder in System Settings > Privacy & Security)";
    }
    return systemError(errno);
  }
  if (S_ISREG(info.st_mode)) return std::nullopt;
  if (S_ISDIR(info.st_mode)) return "a folder, not a file";
  return "not a regular file";
}

std::string stemOf(std::string_view name) {
  std::string_view extension = paths::extension(name);
  return std::string(extension.empty() ? name : name.substr(0, name.size() - extension.size() - 1));
}

Result<std::string> publishOutput(const std::string& temporary, const std::string& directory,
                                  std::string_view stem, std::string_view extension) {
  for (int n = 1; n <= 9999; ++n) {
    std::string name = std::string(stem) + (n == 1 ? "" : " " + std::to_string(n)) + "." + std::string(extension);
    std::string path = paths::join(directory, name);
    int error = moveNoReplace(temporary, path);
    if (error == 0) return path;
    if (error != EEXIST) return Error{"cannot write " + path + ": " + systemError(error)};
  }
  return Error{"too many files named " + std::string(stem) + " in " + directory};
}

}  // namespace palvin::host
