#include "origin/origin_service.hpp"

#include <mutex>

#include "host/json.hpp"
#include "host/text.hpp"
#include "origin/disk.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::origin {
namespace {

namespace fs = std::filesystem;

HttpResponse json_response(const Document& document, int status = 200) {
  return {status, {{"Content-Type", "application/json"}}, Content(sync::dump_json(document)), {}};
}

HttpResponse error_response(int status, const char* code, const char* recovery) {
  return json_response({{"error_code", code}, {"retryable", false}, {"recovery", recovery}}, status);
}

HttpResponse not_found() { return error_response(404, "not_found", "operator_fix_required"); }

Document era_document(const OriginState& state) {
  if (state.era_state == "between_eras") return {{"era", nullptr}, {"state", state.era_state}};
  const auto closing_at = state.next_closing_at.empty() ? Document() : Document(state.next_closing_at);
  return {{"era",
           {{"era_number", state.era_number},
            {"state", state.era_state},
            {"next_closing_at", closing_at},
            {"min_library_version", state.min_library_version}}},
          {"state", state.era_state}};
}

/// What the API answers from, read once per change of the state file.
struct Snapshot {
  OriginState state;
  Content manifest;
  Content version;
  Content seed;
  Headers seed_headers;
};

/// The release's manifest relative path in a data origin path, absent for any other path.
std::optional<std::string> relative_path_of(const std::string& path) {
  const auto segments = sync::text::split(path, "/");
  if (segments.size() < 4 || !segments[0].empty() || segments[1] != "releases") return std::nullopt;
  for (std::size_t i = 2; i < segments.size(); ++i) {
    if (segments[i].empty() || segments[i] == "." || segments[i] == "..") return std::nullopt;
  }
  // A release that is still being written has a name with a leading dot.
  if (segments[2].front() == '.') return std::nullopt;
  return path.substr(std::string("/releases/").size() + segments[2].size() + 1);
}

}  // namespace

struct OriginService::Internals {
  Internals(OriginTree served, ServiceOptions given)
      : tree(std::move(served)), options(std::move(given)), token(tree.token()) {}

  void listen() {
    api.emplace([this](const HttpRequest& request) { return answer_api(request); }, options.api_port);
    if (!options.data_port) return;
    data.emplace([this](const HttpRequest& request) { return answer_data(request); }, *options.data_port);
  }

  HttpResponse answer_api(const HttpRequest& request) {
    const auto* credentials = find_header(request.headers, "Authorization");
    std::string expected;
    {
      const std::lock_guard lock(mutex);
      expected = "Bearer " + token;
    }
    if (credentials == nullptr || *credentials != expected) {
      return noted(request.path, request, error_response(401, "unauthorized", "reauthenticate"));
    }
    if (request.path == "/control/faults") return control(request);
    return answer(request.path, request, [this](const HttpRequest& asked) { return api_document(asked); });
  }

  HttpResponse answer_data(const HttpRequest& request) {
    const auto relative = relative_path_of(request.path);
    if (!relative) return noted(request.path, request, not_found());
    return answer(*relative, request, [this](const HttpRequest& asked) { return file(asked); });
  }

  HttpResponse answer(const std::string& resource, const HttpRequest& request,
                      const HttpServer::Handler& respond) {
    if (request.method != "GET" && request.method != "HEAD") {
      return noted(resource, request, error_response(405, "method_not_allowed", "operator_fix_required"));
    }
    const auto fault = faults.take(resource);
    if (!fault) return noted(resource, request, respond(request));
    return noted(resource, request, apply_fault(*fault, request, respond, [this] { switch_release(); }));
  }

  HttpResponse api_document(const HttpRequest& request) {
    const auto now = snapshot();
    if (request.path == "/market/" + std::to_string(now->state.market_id) + "/era/current") {
      return json_response(era_document(now->state));
    }
    const Headers json = {{"Content-Type", "application/json"}};
    if (now->state.current.empty()) return not_found();
    if (request.path == "/data/manifest/version") return {200, json, now->version, {}};
    if (request.path == "/data/manifest") return {200, json, now->manifest, {}};
    if (request.path == "/data/shuffle") return {200, now->seed_headers, now->seed, {}};
    return not_found();
  }

  HttpResponse file(const HttpRequest& request) {
    try {
      const Content whole(std::make_shared<const OpenFile>(tree.root().string() + request.path));
      auto response = ranged_response(request, whole);
      response.headers.emplace("Content-Type", "application/octet-stream");
      return response;
    } catch (const sync::FileNotFoundError&) {
      return not_found();
    }
  }

  HttpResponse control(const HttpRequest& request) {
    if (request.method == "POST") {
      try {
        std::vector<std::pair<std::string, Fault>> added;
        for (const auto& line : sync::text::split(request.body, "\n")) {
          if (!sync::text::strip(line).empty()) added.push_back(parse_fault(line));
        }
        for (auto& [pattern, fault] : added) faults.add(pattern, std::move(fault));
      } catch (const sync::ValueError& failure) {
        return json_response({{"error", failure.what()}}, 400);
      }
    } else if (request.method == "DELETE") {
      faults.clear();
    }
    return json_response(faults.describe());
  }

  std::shared_ptr<const Snapshot> snapshot() {
    const auto state_text = disk::read_text(tree.state_path());
    const std::lock_guard lock(snapshot_mutex);
    if (!current || current_text != state_text) {
      current = read_snapshot();
      current_text = state_text;
    }
    return current;
  }

  std::shared_ptr<const Snapshot> read_snapshot() const {
    auto read = std::make_shared<Snapshot>();
    read->state = tree.state();
    const auto& name = read->state.current;
    if (name.empty()) return read;
    const auto release = tree.release(name);
    read->manifest = Content(release.manifest_bytes);
    read->version = Content(disk::read_text(tree.api_directory(name) / "version.json"));
    read->seed = Content(disk::read_text(tree.api_directory(name) / "shuffle_seed.enc"));
    read->seed_headers = {{"Content-Type", "application/octet-stream"},
                          {"X-Era-Number", sync::text::str(release.manifest.at("era_number"))}};
    for (const auto& [key, header] :
         {std::pair("shuffle_key_generation", "X-TidalCrest-Shuffle-Key-Generation"),
          std::pair("shuffle_key_source", "X-TidalCrest-Shuffle-Key-Source")}) {
      const auto* value = sync::find_member(release.manifest, key);
      if (value != nullptr && value->is_string())
        read->seed_headers.emplace(header, value->get<std::string>());
    }
    return read;
  }

  void switch_release() const {
    const auto held = tree.state().held;
    if (!held.empty()) tree.make_current(held);
  }

  HttpResponse noted(const std::string& resource, const HttpRequest& request, HttpResponse response) {
    const OriginRequest seen{resource, {request.method, request.path, request.headers}, response.status};
    if (options.observer) options.observer(seen);
    if (options.record) {
      const std::lock_guard lock(mutex);
      requests.push_back(seen);
    }
    return response;
  }

  const OriginTree tree;
  const ServiceOptions options;
  FaultList faults;
  mutable std::mutex mutex;  // guards `token` and `requests`
  std::string token;
  std::vector<OriginRequest> requests;
  std::mutex snapshot_mutex;  // guards the two below; held while they are read anew
  std::shared_ptr<const Snapshot> current;
  std::string current_text;       ///< the state file's text when `current` was read
  std::optional<HttpServer> api;  // the servers end first
  std::optional<HttpServer> data;
};

OriginService::OriginService(OriginTree tree, ServiceOptions options)
    : _internals(std::make_unique<Internals>(std::move(tree), std::move(options))) {
  _internals->listen();
}
OriginService::~OriginService() { stop(); }

const OriginTree& OriginService::tree() const noexcept { return _internals->tree; }
FaultList& OriginService::faults() noexcept { return _internals->faults; }
std::string OriginService::api_url() const { return _internals->api->url(); }
std::string OriginService::data_url() const { return _internals->data ? _internals->data->url() : ""; }

std::string OriginService::token() const {
  const std::lock_guard lock(_internals->mutex);
  return _internals->token;
}

void OriginService::set_token(const std::string& token) {
  const std::lock_guard lock(_internals->mutex);
  _internals->token = token;
}

std::vector<OriginRequest> OriginService::requests() const {
  const std::lock_guard lock(_internals->mutex);
  return _internals->requests;
}

void OriginService::forget_requests() {
  const std::lock_guard lock(_internals->mutex);
  _internals->requests.clear();
}

std::size_t OriginService::connections_opened() const {
  return _internals->api->connections_opened() +
         (_internals->data ? _internals->data->connections_opened() : 0);
}

void OriginService::stop() {
  _internals->api->stop();
  if (_internals->data) _internals->data->stop();
}

}  // namespace tidalcrest::origin
