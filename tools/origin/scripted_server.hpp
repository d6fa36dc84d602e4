#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tidalcrest::origin {

/// One request as the server saw it.
struct RecordedRequest {
  std::string method;
  std::string path;  ///< without the query
  std::multimap<std::string, std::string> headers;
  /// The value of the first header of that name in any letter case, empty when there is none.
  std::string header(const std::string& name) const;
};

/// One answer, with the fault that it is to show. A Content-Length among the headers replaces the true one.
struct Reply {
  int status = 200;
  std::multimap<std::string, std::string> headers = {};
  std::string body = {};
  std::optional<std::size_t> cut_after = {};    ///< close the connection after so many body bytes
  std::optional<std::size_t> reset_after = {};  ///< the same with a TCP reset
  double delay_seconds = 0;                     ///< wait before the status line
  std::optional<std::size_t> stall_after = {};  ///< after so many body bytes send nothing for `stall_seconds`
  double stall_seconds = 60;                    ///< ends early when the server stops
  bool chunked = false;                         ///< chunked transfer encoding, no Content-Length
};

/// An HTTP server on a loopback port that the kernel chose, with a script per path. Every request is
/// recorded. Starts in the constructor; the destructor ends every connection and joins every thread.
/// Thread-safe.
class ScriptedServer {
 public:
  ScriptedServer();
  ~ScriptedServer();
  /// `http://127.0.0.1:{port}`
  std::string url() const;
  int port() const;
  /// Answers requests to `path` with these replies in turn; the last one repeats. Replaces an earlier script;
  /// no replies take it away.
  void script(const std::string& path, std::vector<Reply> replies);
  /// Serves bytes with keep-alive and correct Range handling (206, 416).
  void serve(const std::string& path, std::string bytes,
             std::multimap<std::string, std::string> headers = {});
  /// Asked for every request without a script; absent gives 404.
  void set_fallback(std::function<std::optional<Reply>(const RecordedRequest&)> fallback);
  /// Requests to `path` so far, in order; all paths when empty.
  std::vector<RecordedRequest> requests(const std::string& path = {}) const;
  /// The Range headers of the requests to `path`, empty text for a request without one.
  std::vector<std::string> ranges_asked(const std::string& path) const;
  std::size_t connections_opened() const;

 private:
  struct Internals;
  std::unique_ptr<Internals> _internals;
};

}  // namespace tidalcrest::origin
