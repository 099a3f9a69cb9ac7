#include "platform/linux_journal.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

namespace palvin::linux_journal {
namespace {

sockaddr_un journalAddress() {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, kSocketPath, sizeof address.sun_path - 1);
  return address;
}

}  // namespace

std::string encode(const std::vector<Field>& fields) {
  std::string entry;
  for (const auto& [name, value] : fields) {
    entry += name;
    if (value.find('\n') == std::string_view::npos) {
      entry += '=';
    } else {
      entry += '\n';
      std::uint64_t size = value.size();
      for (int byte = 0; byte < 8; ++byte) entry += static_cast<char>((size >> (8 * byte)) & 0xFF);
    }
    entry += value;
    entry += '\n';
  }
  return entry;
}

Socket::Socket() {
  struct stat info {};
  if (::stat(kSocketPath, &info) != 0 || !S_ISSOCK(info.st_mode)) return;
  fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
}

Socket::~Socket() {
  if (fd_ >= 0) ::close(fd_);
}

// Unconnected, as the journal may be restarted under a new socket of the same
// name; MSG_NOSIGNAL, as the host's SIGPIPE is not ours to raise.
void Socket::send(std::string_view entry) const {
  if (fd_ < 0) return;
  const sockaddr_un address = journalAddress();
  while (::sendto(fd_, entry.data(), entry.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                  reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0 &&
         errno == EINTR) {
  }
}

}  // namespace palvin::linux_journal
