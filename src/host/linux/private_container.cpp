#include "private_container.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>

namespace palvin::host {

std::optional<ContainerProblem> makeContainerPrivate(const std::string& path) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0)
    return ContainerProblem{path + ": " + std::generic_category().message(errno), ""};
  const std::string bad = "Bad owner or permissions on the shared container " + path + ": ";
  if (info.st_uid != ::geteuid()) {
    return ContainerProblem{bad + "it belongs to user " + std::to_string(info.st_uid) + ", not to you.",
                            "Move it away, or set PALVIN_SHARED_CONTAINER to a folder of your own."};
  }
  if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    char mode[8];
    std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(info.st_mode & 07777));
    return ContainerProblem{bad + "others can write in it (mode " + mode + ").",
                            "Run chmod go-w '" + path + "', or remove it to have it made afresh."};
  }
  if ((info.st_mode & 077) != 0 && ::chmod(path.c_str(), info.st_mode & 07700) != 0) {
    return ContainerProblem{path + ": " + std::generic_category().message(errno), ""};
  }
  return std::nullopt;
}

}  // namespace palvin::host
