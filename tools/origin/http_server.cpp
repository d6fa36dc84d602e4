#include "origin/http_server.hpp"

#include <httplib.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <future>
#include <limits>
#include <thread>
#include <vector>

#include "host/event.hpp"
#include "host/failures.hpp"
#include "host/text.hpp"
#include "host/threads.hpp"
#include "origin/body_sender.hpp"
#include "origin/connection_sockets.hpp"

#ifdef __SANITIZE_THREAD__
/// The HTTP library comes without instrumentation, so the checker does not see the guards of its static
/// regular expressions and takes their first use for a race.
extern "C" const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() { return "race:libcpp-httplib\n"; }
#endif

namespace tidalcrest::origin {
namespace {

constexpr const char* LOOPBACK = "127.0.0.1";
constexpr time_t PATIENCE_SECONDS = 3600;  // with clients; connections end when a client or the server does

/// The library's requests to run something, one for each connection that it accepts.
class ConnectionThreads : public httplib::TaskQueue {
 public:
  ConnectionThreads(std::atomic<std::size_t>& opened, std::function<void()> end_connections)
      : _opened(opened), _end_connections(std::move(end_connections)) {}

  void enqueue(std::function<void()> serve) override {
    ++_opened;
    std::erase_if(_running, [](const auto& one) {
      return one.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    });
    _running.push_back(std::async(std::launch::async, [serve = std::move(serve)] {
      sync::set_thread_name("origin-connect");
      serve();
    }));
  }

  /// Called when nothing more is accepted.
  void shutdown() override {
    _end_connections();
    _running.clear();  // joins
  }

 private:
  std::atomic<std::size_t>& _opened;
  const std::function<void()> _end_connections;
  std::vector<std::future<void>> _running;  // only for the accepting thread
};

HttpRequest request_of(const httplib::Request& received) {
  HttpRequest request;
  request.method = received.method;
  const auto question = received.target.find('?');
  request.path = received.target.substr(0, question);
  if (question != std::string::npos) request.query = received.target.substr(question + 1);
  request.headers.insert(received.headers.begin(), received.headers.end());
  for (const char* added_by_library : {"REMOTE_ADDR", "REMOTE_PORT", "LOCAL_ADDR", "LOCAL_PORT"}) {
    request.headers.erase(added_by_library);
  }
  request.body = received.body;
  return request;
}

bool may_have_body(const HttpResponse& response) { return response.status != 204 && response.status != 304; }

/// After a Content-Length that the body does not keep, only the end of the connection says where it ended.
bool lies_about_length(const HttpResponse& response) {
  const auto* claimed = find_header(response.headers, "Content-Length");
  return claimed != nullptr && *claimed != std::to_string(response.content.length);
}

void set_headers(const HttpResponse& from, httplib::Response& to) {
  for (const auto& [name, value] : from.headers) {
    if (sync::text::lower(name) != "content-type") to.set_header(name, value);
  }
  const bool has_length = find_header(from.headers, "Content-Length") != nullptr;
  if (!has_length && !from.transmission.chunked && may_have_body(from)) {
    to.set_header("Content-Length", std::to_string(from.content.length));
  }
  if (lies_about_length(from)) to.set_header("Connection", "close");
}

}  // namespace

class HttpServer::Internals {
 public:
  Internals(Handler handler, int port) : _handler(std::move(handler)) {
    _configure();
    _port = _bind(port);
    // The library's own backlog is so short that a burst of clients would wait for a second SYN.
    if (_port < 0 || ::listen(_listener, SOMAXCONN) != 0) {
      sync::throw_os_error(errno, "origin: listen on 127.0.0.1:" + std::to_string(port));
    }
    _acceptor = std::thread([this] {
      sync::set_thread_name("origin-accept");
      _server.listen_after_bind();
    });
  }
  ~Internals() { stop(); }

  int port() const noexcept { return _port; }
  std::size_t opened() const { return _opened; }

  void stop() {
    if (!_acceptor.joinable()) return;
    // Not the library's own stop: it does nothing before the acceptor runs, and closes the listener under it.
    ::shutdown(_listener, SHUT_RDWR);
    _acceptor.join();
  }

 private:
  void _configure() {
    _server.set_socket_options([this](int listener) {
      _listener = listener;
      const int on = 1;
      ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    });
    _server.set_tcp_nodelay(true);
    _server.set_keep_alive_max_count(std::numeric_limits<std::size_t>::max());
    _server.set_keep_alive_timeout(PATIENCE_SECONDS);
    _server.set_read_timeout(PATIENCE_SECONDS);
    _server.set_write_timeout(PATIENCE_SECONDS);
    _server.new_task_queue = [this] {
      return new ConnectionThreads(_opened, [this] {
        shut_down_connections(_port);  // first: who wakes from a delay must not be able to answer
        _stopping.set();
      });
    };
    // There are no routes: with its body read, every request arrives here as a 404, or as a 416 when the
    // library does not like its Range. What else it refuses is no HTTP that a handler could answer.
    const httplib::Server::HandlerWithResponse answer = [this](const auto& request, auto& response) {
      const bool readable = response.status == 404 || response.status == 416;
      return readable ? _answer(request, response) : httplib::Server::HandlerResponse::Unhandled;
    };
    _server.set_error_handler(answer);
  }

  int _bind(int port) {
    if (port == 0) return _server.bind_to_any_port(LOOPBACK);
    return _server.bind_to_port(LOOPBACK, port) ? port : -1;
  }

  /// "Handled" would let the library apply the Range a second time and choose headers. Only those of chunked
  /// encoding are left to it.
  httplib::Server::HandlerResponse _answer(const httplib::Request& request, httplib::Response& response) {
    const auto answer = std::make_shared<const HttpResponse>(_ask_handler(request_of(request)));
    const auto& how = answer->transmission;
    if (how.delay_seconds > 0) _stopping.wait_for(std::chrono::duration<double>(how.delay_seconds));
    response.status = answer->status;
    set_headers(*answer, response);
    const auto* declared = find_header(answer->headers, "Content-Type");
    const std::string type = declared == nullptr ? "application/octet-stream" : *declared;
    const auto send = [this, answer, client_port = request.remote_port](
                          std::size_t, httplib::DataSink& sink) { return _send(*answer, client_port, sink); };
    if (how.chunked) {
      response.set_chunked_content_provider(type, send);
      return httplib::Server::HandlerResponse::Handled;
    }
    response.set_content_provider(type, send);
    return httplib::Server::HandlerResponse::Unhandled;
  }

  HttpResponse _ask_handler(const HttpRequest& request) {
    try {
      return _handler(request);
    } catch (const std::exception& failure) {
      return {500, {}, Content(std::string(failure.what())), {}};
    }
  }

  /// Sends a whole body. False makes the library close the connection.
  bool _send(const HttpResponse& answer, int client_port, httplib::DataSink& sink) {
    try {
      if (may_have_body(answer)) {
        const auto write = [&](std::string_view piece) { return sink.write(piece.data(), piece.size()); };
        const auto after = send_body(answer, write, _stopping);
        if (after == AfterBody::RESET) reset_connection(_port, client_port, _stopping);
        if (after != AfterBody::CONTINUE) return false;
      }
      sink.done();
      return !lies_about_length(answer);
    } catch (const std::exception&) {
      // A file that cannot be read in mid-answer: all that can still be said is the end of the connection.
      return false;
    }
  }

  const Handler _handler;
  int _port = -1;
  int _listener = -1;  // belongs to `_server`
  sync::Event _stopping;
  std::atomic<std::size_t> _opened = 0;
  httplib::Server _server;
  std::thread _acceptor;
};

HttpServer::HttpServer(Handler handler, int port)
    : _internals(std::make_unique<Internals>(std::move(handler), port)) {}
HttpServer::~HttpServer() = default;

int HttpServer::port() const noexcept { return _internals->port(); }
std::string HttpServer::url() const { return "http://127.0.0.1:" + std::to_string(port()); }
std::size_t HttpServer::connections_opened() const { return _internals->opened(); }
void HttpServer::stop() { _internals->stop(); }

}  // namespace tidalcrest::origin
