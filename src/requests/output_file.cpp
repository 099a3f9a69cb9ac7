#include "requests/output_file.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "shared/paths.h"

namespace palvin {
namespace {

std::string systemError(int errnum) {
  return std::generic_category().message(errnum);
}

// Renames without replacing an existing file: renameat2 where the C library
// has it (Linux), else a hard link, which fails the same way on an existing
// name. File systems without either (FAT, exFAT, some network shares) get an
// exclusively created placeholder that the rename then replaces.
int renameNoReplace(const std::string& from, const std::string& to) {
#ifdef RENAME_NOREPLACE
  if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
  if (errno != EINVAL && errno != ENOSYS) return errno;
#endif
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
  if (::stat(path.c_str(), &info) != 0) return systemError(errno);
  if (S_ISREG(info.st_mode)) return std::nullopt;
  if (S_ISDIR(info.st_mode)) return "a directory, not a regular file";
  if (S_ISFIFO(info.st_mode)) return "a FIFO, not a regular file";
  if (S_ISCHR(info.st_mode) || S_ISBLK(info.st_mode)) return "a device, not a regular file";
  return "not a regular file";
}

std::string stemOf(std::string_view name) {
  std::string_view extension = paths::extension(name);
  return std::string(extension.empty() ? name : name.substr(0, name.size() - extension.size() - 1));
}

Result<std::string> publishOutput(const std::string& temporary, const std::string& directory,
                                  std::string_view stem, std::string_view extension) {
  for (int n = 1; n <= 9999; ++n) {
    std::string name(stem);
    if (n > 1) name.append(" ").append(std::to_string(n));
    name.append(".").append(extension);
    std::string path = paths::join(directory, name);
    int error = renameNoReplace(temporary, path);
    if (error == 0) return path;
    if (error != EEXIST) return Error{systemError(error)};
  }
  return Error{"too many files named " + std::string(stem) + " here"};
}

}  // namespace palvin
