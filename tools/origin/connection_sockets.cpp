#include "origin/connection_sockets.hpp"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>

namespace tidalcrest::origin {
namespace {

constexpr int NO_PORT = -1;

/// The port that `name_of` (`getsockname` or `getpeername`) gives for an IPv4 socket.
template <class NameOf>
int port_of(int fd, NameOf name_of) {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  const bool known = name_of(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0;
  return known && address.sin_family == AF_INET ? ntohs(address.sin_port) : NO_PORT;
}

/// A second descriptor of a socket. Its number stays ours while the library closes its own.
class SecondDescriptor {
 public:
  explicit SecondDescriptor(int fd) : _fd(::fcntl(fd, F_DUPFD_CLOEXEC, 0)) {}
  ~SecondDescriptor() {
    if (_fd >= 0) ::close(_fd);
  }
  SecondDescriptor(const SecondDescriptor&) = delete;
  SecondDescriptor& operator=(const SecondDescriptor&) = delete;
  int get() const noexcept { return _fd; }

 private:
  int _fd;
};

/// Calls `act` with a descriptor of every connection to the server and with its client's port.
template <class Act>
void for_each_connection(int server_port, Act act) {
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    const int found = std::stoi(entry.path().filename().string());
    // Asked before duplicating too: to close a second descriptor of a file drops this process's locks on it.
    if (port_of(found, ::getsockname) != server_port) continue;
    const SecondDescriptor socket(found);
    const int client_port = port_of(socket.get(), ::getpeername);
    if (client_port == NO_PORT || port_of(socket.get(), ::getsockname) != server_port) continue;
    act(socket.get(), client_port);
  }
}

int unsent(int fd) {
  int count = 0;
  return ::ioctl(fd, TIOCOUTQ, &count) == 0 ? count : 0;
}

/// Unlike a close after a shutdown, this shows the client the reset and no orderly end before it.
void disconnect(int fd) {
  sockaddr nobody{};
  nobody.sa_family = AF_UNSPEC;
  static_cast<void>(::connect(fd, &nobody, sizeof nobody));
}

}  // namespace

void shut_down_connections(int server_port) {
  for_each_connection(server_port, [](int fd, int) { ::shutdown(fd, SHUT_RDWR); });
}

void reset_connection(int server_port, int client_port, const sync::Event& stopping) {
  for_each_connection(server_port, [&](int fd, int client) {
    if (client != client_port) return;
    while (unsent(fd) > 0 && !stopping.wait_for(std::chrono::milliseconds(1))) {
    }
    disconnect(fd);
  });
}

}  // namespace tidalcrest::origin
