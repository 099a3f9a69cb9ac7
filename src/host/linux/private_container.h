// The shared container holds the user's requests, results and log, which name
// their files: it must be theirs alone, as ssh wants of ~/.ssh.
#pragma once

#include <optional>
#include <string>

namespace palvin::host {

struct ContainerProblem {
  std::string what, todo;
};

// Checks the existing directory `path`: owned by this user and writable by
// nobody else, else the problem and its fix. A container that passes is made
// readable by nobody else too (0700), as older versions made it 0755.
std::optional<ContainerProblem> makeContainerPrivate(const std::string& path);

}  // namespace palvin::host
