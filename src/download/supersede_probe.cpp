#include "download/supersede_probe.hpp"

#include <utility>

#include "host/integer.hpp"
#include "host/json.hpp"
#include "host/log.hpp"
#include "manifest/identity.hpp"
#include "manifest/paths.hpp"
#include "manifest/persistence.hpp"
#include "siblings/security/transport.hpp"
#include "transport/settings.hpp"

namespace tidalcrest::sync {
namespace {

// A later era wins and an earlier one loses, whatever the versions say; absent when the eras do not decide.
std::optional<bool> decided_by_eras(const std::optional<std::int64_t>& served,
                                    const std::optional<std::int64_t>& expected) {
  if (!served || !expected || *served == *expected) return std::nullopt;
  return *served > *expected;
}

}  // namespace

Document generation_base_url(const ManifestGeneration& generation, const ActiveViewHolder& active) {
  if (generation.base_url.empty()) {
    const auto view = active.get();
    if (view->manifest) return view->manifest->base_url();
  }
  return generation.base_url;
}

SupersedeProbe::SupersedeProbe(const ManagerHttp& http, const ActiveViewHolder& active,
                               std::string server_url, std::int64_t market_id)
    : _http(http), _active(active), _server_url(std::move(server_url)), _market_id(market_id) {}

bool SupersedeProbe::_download_manifest_superseded(const ManifestGeneration& generation) const {
  if (!generation.version) return false;  // a file without a generation can't be superseded
  const auto answer = _version_answer();
  if (!answer) return false;
  if (answer->status == 401) {
    throw AuthError("Authentication failed while probing manifest version: HTTP 401");
  }
  if (answer->status != 200) return false;
  const auto served = _served_version(answer->body);
  if (!served) return false;
  if (const auto decided = decided_by_eras(served->era_number, generation.era_number)) return *decided;
  if (served->version > *generation.version) return true;
  return _public_manifest_superseded(generation);
}

std::optional<HttpResult> SupersedeProbe::_version_answer() const {
  try {
    return _manifest_version_probe_once(_server_url + "/data/manifest/version");
  } catch (const AuthError&) {
    throw;
  } catch (const std::exception& failure) {
    log::debug("Manifest version probe failed during checksum repair: %s", failure.what());
    return std::nullopt;
  }
}

std::optional<HttpResult> SupersedeProbe::_manifest_version_probe_once(const std::string& url) const {
  security::validate_bearer_transport_url(url);
  const std::string token = _http.credentials().get_token();
  const Request request{url, {{"Authorization", "Bearer " + token}, {"User-Agent", SYNC_USER_AGENT}}};
  try {
    return _http.client()._open_request(request, _sync_manifest_version_http_timeout_seconds());
  } catch (const HTTPError& answer) {
    return HttpResult{answer.code, answer.headers, answer.body};
  } catch (const OSError& failure) {
    log::debug("Manifest version one-shot probe failed during checksum repair: %s", failure.what());
    return std::nullopt;
  }
}

std::optional<SupersedeProbe::Served> SupersedeProbe::_served_version(const std::string& body) const {
  try {
    const Document data = parse_json(body);
    _require_manifest_market_identity(data, _market_id, "manifest version response");
    return Served{to_int(member_or_null(data, "version")), try_int(member_or_null(data, "era_number"))};
  } catch (const ManifestError&) {
    throw;  // a response of another market is a hard failure, not an unknown
  } catch (const std::exception& failure) {
    log::debug("Manifest version probe was not parseable during checksum repair: %s", failure.what());
    return std::nullopt;
  }
}

SharedManifest SupersedeProbe::_public_manifest_probe_once(const Document& base_url) const {
  if (!_manifest_base_url_uses_public_download(_server_url, base_url)) return nullptr;
  try {
    const std::string manifest_url = _manifest_file_url(_server_url, "manifest.json", base_url);
    const Request request{manifest_url, {{"User-Agent", SYNC_USER_AGENT}}};
    HttpResult answer = _http.client()._open_request(request, _sync_manifest_version_http_timeout_seconds(),
                                                     _http.knobs().transport());
    if (answer.status != 200 && answer.status != 0) return nullptr;
    // Many workers may ask at once, mostly for the bytes that the running sync has parsed.
    return _shared_full_distribution_manifest(std::make_shared<const std::string>(std::move(answer.body)),
                                              "public manifest.json supersede probe");
  } catch (const HTTPError& answer) {
    log::debug("Public manifest supersede probe returned HTTP %d", answer.code);
    return nullptr;
  } catch (const std::exception& failure) {
    log::debug("Public manifest supersede probe failed: %s", failure.what());
    return nullptr;
  }
}

// The public document is immutable per generation: it shows one that the version service does not show yet.
bool SupersedeProbe::_public_manifest_superseded(const ManifestGeneration& generation) const {
  const auto manifest = _public_manifest_probe_once(generation_base_url(generation, _active));
  if (!manifest) return false;
  const Document& manifest_data = manifest->head();
  _require_manifest_market_identity(manifest_data, _market_id, "public manifest.json");
  const auto version = try_int(member_or_null(manifest_data, "version"));
  if (!version) return false;
  const Document& era_number_raw = member_or_null(manifest_data, "era_number");
  const auto era_number = try_int(era_number_raw);
  if (!era_number_raw.is_null() && !era_number) return false;
  if (const auto decided = decided_by_eras(era_number, generation.era_number)) return *decided;
  return *version > *generation.version;
}

}  // namespace tidalcrest::sync
