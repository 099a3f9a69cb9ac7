#include "platform/linux_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace palvin::linux_files {
namespace {

// strerror_r comes in a GNU and an XSI flavour; both are thread-safe.
[[maybe_unused]] const char* errorText(int result, const char* buffer) {
  return result == 0 ? buffer : "Unknown error";
}
[[maybe_unused]] const char* errorText(const char* result, const char*) {
  return result;
}

std::string kindDescription(mode_t mode) {
  if (S_ISDIR(mode)) return "is a directory";
  if (S_ISCHR(mode)) return "is a character device";
  if (S_ISBLK(mode)) return "is a block device";
  if (S_ISFIFO(mode)) return "is a FIFO";
  if (S_ISSOCK(mode)) return "is a socket";
  return "is not a regular file";
}

std::string notRegular(std::string_view path, mode_t mode) {
  return std::string(path) + ": " + kindDescription(mode) + ", not a regular file";
}

std::string limitText(std::uint64_t limit) {
  constexpr std::uint64_t kMiB = 1 << 20;
  if (limit % kMiB == 0) return std::to_string(limit / kMiB) + " MiB";
  return std::to_string(limit) + " bytes";
}

// "65.1 MiB", to the nearest tenth, in integers: the host's locale must not
// turn the point into a comma.
std::string mebibytes(std::uint64_t size) {
  constexpr std::uint64_t kMiB = 1 << 20;
  const std::uint64_t tenths = size / kMiB * 10 + ((size % kMiB) * 10 + kMiB / 2) / kMiB;
  return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + " MiB";
}

class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return fd_; }
  // Closes now and yields close's errno, 0 on success. Never retried: on
  // Linux the descriptor is gone even when close reports EINTR.
  int close() {
    int result = ::close(fd_);
    fd_ = -1;
    return result == 0 ? 0 : errno;
  }

 private:
  int fd_;
};

// Writes everything, through interruptions and short writes; errno or 0.
int writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    if (written == 0) return EIO;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return 0;
}

class LinuxWritableFile : public WritableFile {
 public:
  LinuxWritableFile(int fd, std::string path) : fd_(fd), path_(std::move(path)) {}
  ~LinuxWritableFile() override {
    if (fd_ >= 0) ::close(fd_);
  }
  LinuxWritableFile(const LinuxWritableFile&) = delete;
  LinuxWritableFile& operator=(const LinuxWritableFile&) = delete;

  Result<std::uint64_t> seekToEnd() override {
    if (fd_ < 0) return Error{describe(path_, EBADF)};
    off_t end = ::lseek(fd_, 0, SEEK_END);
    if (end < 0) return Error{describe(path_, errno)};
    return static_cast<std::uint64_t>(end);
  }

  Status write(std::string_view bytes) override {
    if (fd_ < 0) return Error{describe(path_, EBADF)};
    if (int err = writeAll(fd_, bytes)) return Error{describe(path_, err)};
    return success();
  }

  Result<std::string> readTail(std::uint64_t length) override {
    if (fd_ < 0) return Error{describe(path_, EBADF)};
    struct stat info {};
    if (::fstat(fd_, &info) != 0) return Error{describe(path_, errno)};
    auto size = static_cast<std::uint64_t>(info.st_size);
    std::uint64_t start = size > length ? size - length : 0;
    try {
      std::string tail(static_cast<std::size_t>(size - start), '\0');
      std::size_t filled = 0;
      while (filled < tail.size()) {
        ssize_t got =
            ::pread(fd_, tail.data() + filled, tail.size() - filled, static_cast<off_t>(start + filled));
        if (got < 0) {
          if (errno == EINTR) continue;
          return Error{describe(path_, errno)};
        }
        if (got == 0) break;  // shrank since fstat
        filled += static_cast<std::size_t>(got);
      }
      tail.resize(filled);
      if (::lseek(fd_, 0, SEEK_END) < 0) return Error{describe(path_, errno)};
      return tail;
    } catch (const std::bad_alloc&) {
      return Error{describe(path_, ENOMEM)};
    }
  }

  Status close() override {
    if (fd_ < 0) return Error{describe(path_, EBADF)};
    int result = ::close(fd_);
    fd_ = -1;
    if (result != 0) return Error{describe(path_, errno)};
    return success();
  }

 private:
  int fd_;
  std::string path_;
};

}  // namespace

std::string describe(std::string_view path, int errnum) {
  char buffer[256] = {};
  std::string out(path);
  out += ": ";
  out += errorText(strerror_r(errnum, buffer, sizeof buffer), buffer);
  return out;
}

Result<ModificationDate> modificationDate(const std::string& path) {
  auto timeOf = [](const struct stat& info) {
    return FileTime{static_cast<std::int64_t>(info.st_mtim.tv_sec),
                    static_cast<std::int64_t>(info.st_mtim.tv_nsec)};
  };
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0) return Error{describe(path, errno)};
  ModificationDate date{timeOf(info), std::nullopt};
  if (S_ISLNK(info.st_mode) && ::stat(path.c_str(), &info) == 0) date.linkTarget = timeOf(info);
  return date;
}

Result<std::string> readFile(const std::string& path, std::uint64_t limit, std::uint64_t from) {
  // O_NONBLOCK keeps the open of a FIFO without a writer from hanging; the
  // descriptor, not the path, is examined, so a file swapped in between is
  // judged by what was actually opened.
  Descriptor fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
  if (fd.get() < 0) return Error{describe(path, errno)};
  struct stat info {};
  if (::fstat(fd.get(), &info) != 0) return Error{describe(path, errno)};
  if (!S_ISREG(info.st_mode)) return Error{notRegular(path, info.st_mode)};
  auto size = static_cast<std::uint64_t>(info.st_size);
  size = size > from ? size - from : 0;
  if (from > 0 && ::lseek(fd.get(), static_cast<off_t>(from), SEEK_SET) < 0)
    return Error{describe(path, errno)};
  if (size > limit) {
    return Error{path + ": is " + mebibytes(size) + ", larger than the " + limitText(limit) + " limit"};
  }
  try {
    std::string content(static_cast<std::size_t>(size), '\0');
    std::size_t filled = 0;
    for (;;) {
      if (filled < content.size()) {
        ssize_t got = ::read(fd.get(), content.data() + filled, content.size() - filled);
        if (got < 0) {
          if (errno == EINTR) continue;
          return Error{describe(path, errno)};
        }
        if (got == 0) break;  // shrank since fstat
        filled += static_cast<std::size_t>(got);
        continue;
      }
      // The expected size is in; more means the file grew (or, in /proc,
      // that the size was never known).
      char more[65536];
      ssize_t got = ::read(fd.get(), more, sizeof more);
      if (got < 0) {
        if (errno == EINTR) continue;
        return Error{describe(path, errno)};
      }
      if (got == 0) break;
      if (filled + static_cast<std::uint64_t>(got) > limit) {
        return Error{path + ": grew past the " + limitText(limit) + " limit while being read"};
      }
      content.append(more, static_cast<std::size_t>(got));
      filled += static_cast<std::size_t>(got);
    }
    content.resize(filled);
    return content;
  } catch (const std::bad_alloc&) {
    return Error{describe(path, ENOMEM)};
  }
}

// No fsync: what readers need is never to see a partial file, which rename
// gives; surviving a power loss is not asked for and would cost every write
// a disk flush.
Status writeFileAtomically(const std::string& path, std::string_view bytes) {
  auto slash = path.rfind('/');
  std::string directory = slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
  std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  // A leading dot and no ".json" ending keep the host app from taking the
  // temporary file for a request; the name is shortened to stay under
  // NAME_MAX with the added characters.
  std::string temporary = directory + "." + name.substr(0, 200) + ".XXXXXX.tmp";
  Descriptor fd(::mkostemps(temporary.data(), 4, O_CLOEXEC));
  if (fd.get() < 0) return Error{describe(path, errno)};

  auto fail = [&](int err) -> Status {
    ::unlink(temporary.c_str());
    return Error{describe(path, err)};
  };
  // mkostemps makes the file 0600, which it keeps: everything written here
  // lies in the shared container, which is the user's alone.
  if (int err = writeAll(fd.get(), bytes)) return fail(err);
  if (int err = fd.close()) return fail(err);
  if (::rename(temporary.c_str(), path.c_str()) != 0) return fail(errno);
  return success();
}

Status createDirectories(const std::string& path) {
  struct stat info {};
  if (::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) return success();
  // Every ancestor is tried in turn; one that exists answers EEXIST. The
  // first other failure is kept, as it explains a final "No such file".
  int ancestorError = 0;
  for (std::size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
    if (path[slash - 1] == '/') continue;
    std::string ancestor = path.substr(0, slash);
    if (::mkdir(ancestor.c_str(), 0700) != 0 && errno != EEXIST && ancestorError == 0) ancestorError = errno;
  }
  // Private, like the container they are made for.
  if (::mkdir(path.c_str(), 0700) == 0) return success();
  int err = errno;
  if (err == EEXIST) {
    if (::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) return success();
    err = ENOTDIR;
  }
  if (err == ENOENT && ancestorError != 0) err = ancestorError;
  return Error{describe(path, err)};
}

Result<std::unique_ptr<WritableFile>> openForWriting(const std::string& path) {
  // Read-write, since the log reads the file's tail back.
  int fd = ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) return Error{describe(path, errno)};
  auto file = std::make_unique<LinuxWritableFile>(fd, path);
  struct stat info {};
  if (::fstat(fd, &info) != 0) return Error{describe(path, errno)};
  if (!S_ISREG(info.st_mode)) return Error{notRegular(path, info.st_mode)};
  return std::unique_ptr<WritableFile>(std::move(file));
}

}  // namespace palvin::linux_files
