#include "core/needs_sync.hpp"

#include "core/version_answer.hpp"
#include "host/equality.hpp"
#include "host/integer.hpp"
#include "host/json.hpp"
#include "manifest/identity.hpp"
#include "manifest/persistence.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

// Absent when the server did not answer.
std::optional<HttpResult> version_answer(const ManagerHttp& http, const std::string& url) {
  try {
    return http._http_get(url);
  } catch (const SyncUnavailableError&) {
    throw;
  } catch (const SyncBackoffCancelled&) {
    throw;  // a stop request is no need to sync
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace

bool NeedsSync::needs_sync() const {
  const auto answer = version_answer(_with.http, _server_url + "/data/manifest/version");
  const auto view = _with.active.get();
  if (!answer || !view->manifest || answer->status != 200) return true;
  const Document version_data = parse_json(answer->body);
  _require_manifest_market_identity(version_data, _market_id, "manifest version response");
  if (!_answer_agrees(version_data, *view->manifest)) return true;
  if (_with.planner._feature_rotation_needs_sync_for_manifest(*view->manifest)) return true;
  const auto rotation_state = _with.planner.active_rotation_state();
  return !_with.completeness._local_manifest_files_complete(*view, *view->manifest,
                                                            rotation_state ? &*rotation_state : nullptr);
}

// The version as it stands, not converted; the hash only where the server states one.
bool NeedsSync::_answer_agrees(const Document& version_data, const Manifest& manifest) const {
  const Document* version = find_member(version_data, "version");
  if (!host_equal(version != nullptr ? *version : Document(0), manifest.version())) return false;
  const Document* hash_hint = manifest_hash_hint(version_data);
  if (hash_hint == nullptr) return true;
  const auto local_era_number = try_int(manifest.era_number());
  if (!local_era_number) return false;
  return _manifest_hash_hint_matches_local_state(_data_dir, to_int(manifest.version()), *local_era_number,
                                                 *hash_hint);
}

}  // namespace tidalcrest::sync
