#pragma once

#include <functional>
#include <memory>
#include <string>

#include "origin/http_message.hpp"

namespace tidalcrest::origin {

/// An HTTP/1.1 server on 127.0.0.1 with keep-alive and one thread per connection, which can misbehave
/// exactly: cut, reset or stall a connection at a given byte. A process that makes one ignores SIGPIPE from
/// then on.
class HttpServer {
 public:
  /// Called on the connection's thread, from many at once. An exception becomes a 500 with its text.
  using Handler = std::function<HttpResponse(const HttpRequest&)>;

  /// Listens before it returns; port 0 lets the kernel choose. Throws `OSError`.
  explicit HttpServer(Handler handler, int port = 0);
  /// As `stop`.
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  int port() const noexcept;
  std::string url() const;  ///< `http://127.0.0.1:{port}`
  std::size_t connections_opened() const;
  /// Ends every connection, wakes every wait and joins every thread. Not to be called from a handler.
  void stop();

 private:
  class Internals;
  std::unique_ptr<Internals> _internals;
};

}  // namespace tidalcrest::origin
