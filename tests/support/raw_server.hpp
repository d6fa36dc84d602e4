#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

namespace tidalcrest::sync::testing {

/// A server that speaks no protocol: each connection's request is read up to its empty line, and `answer`
/// says byte for byte what follows. One connection at a time; ends with this object.
class RawServer {
 public:
  using Send = std::function<bool(std::string_view)>;  ///< false once the client has gone or the test ends
  using Answer = std::function<void(const Send& send, int connection)>;

  explicit RawServer(Answer answer) : _answer(std::move(answer)) {
    _listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    if (::bind(_listener, reinterpret_cast<sockaddr*>(&address), size) != 0 || ::listen(_listener, 16) != 0 ||
        ::getsockname(_listener, reinterpret_cast<sockaddr*>(&address), &size) != 0)
      throw std::runtime_error("no loopback port");
    _port = ntohs(address.sin_port);
    _thread = std::thread([this] { _serve(); });
  }
  RawServer(const RawServer&) = delete;
  RawServer& operator=(const RawServer&) = delete;
  ~RawServer() {
    _ending = true;
    ::shutdown(_listener, SHUT_RDWR);  // ends what waits on either of them
    ::shutdown(_open_connection, SHUT_RDWR);
    _thread.join();
    ::close(_listener);
  }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(_port); }
  int connections() const { return _connections; }

 private:
  void _serve() {
    while (!_ending) {
      const int connection = ::accept4(_listener, nullptr, nullptr, SOCK_CLOEXEC);
      _open_connection = connection;
      if (connection < 0 || _ending) continue;
      ++_connections;
      if (_read_request(connection)) {
        _answer([&](std::string_view bytes) { return _send(connection, bytes); }, _connections);
      }
      _open_connection = -1;
      ::close(connection);
    }
  }

  static bool _read_request(int connection) {
    std::string request;
    char byte = 0;
    while (!request.ends_with("\r\n\r\n")) {
      if (::recv(connection, &byte, 1, 0) != 1) return false;
      request += byte;
    }
    return true;
  }

  static bool _send(int connection, std::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t sent = ::send(connection, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (sent <= 0) return false;
      bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
  }

  const Answer _answer;
  int _listener = -1;
  int _port = 0;
  std::atomic<bool> _ending{false};
  std::atomic<int> _open_connection{-1};
  std::atomic<int> _connections{0};
  std::thread _thread;  // last: it uses all of the above
};

}  // namespace tidalcrest::sync::testing
