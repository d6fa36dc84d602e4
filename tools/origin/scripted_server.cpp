#include "origin/scripted_server.hpp"

#include <mutex>

#include "origin/http_server.hpp"

namespace tidalcrest::origin {
namespace {

RecordedRequest record_of(const HttpRequest& request) {
  return {request.method, request.path, request.headers};
}

HttpResponse response_of(Reply reply) {
  HttpResponse response;
  response.status = reply.status;
  response.headers = std::move(reply.headers);
  response.content = Content(std::move(reply.body));
  auto& how = response.transmission;
  how.delay_seconds = reply.delay_seconds;
  how.stall_after = reply.stall_after;
  how.stall_seconds = reply.stall_seconds;
  how.cut_after = reply.cut_after;
  how.reset_after = reply.reset_after;
  how.chunked = reply.chunked;
  return response;
}

}  // namespace

std::string RecordedRequest::header(const std::string& name) const {
  const auto* value = find_header(headers, name);
  return value == nullptr ? std::string() : *value;
}

struct ScriptedServer::Internals {
  struct Script {
    std::vector<Reply> replies;  ///< empty when `content` is served
    std::size_t next = 0;
    Content content;
    Headers headers;
  };

  HttpResponse answer(const HttpRequest& request) {
    std::function<std::optional<Reply>(const RecordedRequest&)> asked;
    {
      const std::lock_guard lock(mutex);
      requests.push_back(record_of(request));
      const auto at = scripts.find(request.path);
      if (at != scripts.end()) return scripted(request, at->second);
      asked = fallback;
    }
    auto reply = asked ? asked(record_of(request)) : std::nullopt;
    if (!reply) reply = Reply{.status = 404, .body = "no script for " + request.path};
    return response_of(std::move(*reply));
  }

  static HttpResponse scripted(const HttpRequest& request, Script& script) {
    if (script.replies.empty()) {
      auto response = ranged_response(request, script.content);
      response.headers.insert(script.headers.begin(), script.headers.end());
      return response;
    }
    const auto& reply = script.replies[script.next];
    if (script.next + 1 < script.replies.size()) ++script.next;
    return response_of(reply);
  }

  mutable std::mutex mutex;  // guards the three below
  std::map<std::string, Script> scripts;
  std::function<std::optional<Reply>(const RecordedRequest&)> fallback;
  std::vector<RecordedRequest> requests;
  HttpServer server{[this](const HttpRequest& request) { return answer(request); }};  // ends first
};

ScriptedServer::ScriptedServer() : _internals(std::make_unique<Internals>()) {}
ScriptedServer::~ScriptedServer() = default;

std::string ScriptedServer::url() const { return _internals->server.url(); }
int ScriptedServer::port() const { return _internals->server.port(); }
std::size_t ScriptedServer::connections_opened() const { return _internals->server.connections_opened(); }

void ScriptedServer::script(const std::string& path, std::vector<Reply> replies) {
  const std::lock_guard lock(_internals->mutex);
  if (replies.empty()) {
    _internals->scripts.erase(path);
  } else {
    _internals->scripts[path] = {std::move(replies), 0, {}, {}};
  }
}

void ScriptedServer::serve(const std::string& path, std::string bytes,
                           std::multimap<std::string, std::string> headers) {
  const std::lock_guard lock(_internals->mutex);
  _internals->scripts[path] = {{}, 0, Content(std::move(bytes)), std::move(headers)};
}

void ScriptedServer::set_fallback(std::function<std::optional<Reply>(const RecordedRequest&)> fallback) {
  const std::lock_guard lock(_internals->mutex);
  _internals->fallback = std::move(fallback);
}

std::vector<RecordedRequest> ScriptedServer::requests(const std::string& path) const {
  const std::lock_guard lock(_internals->mutex);
  std::vector<RecordedRequest> found;
  for (const auto& request : _internals->requests) {
    if (path.empty() || request.path == path) found.push_back(request);
  }
  return found;
}

std::vector<std::string> ScriptedServer::ranges_asked(const std::string& path) const {
  std::vector<std::string> ranges;
  for (const auto& request : requests(path)) ranges.push_back(request.header("Range"));
  return ranges;
}

}  // namespace tidalcrest::origin
