#include "core/sync_driver.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <set>

#include "artifacts/signals_index.hpp"
#include "artifacts/vocabulary.hpp"
#include "cohort/result_fields.hpp"
#include "core/version_answer.hpp"
#include "download/local_files.hpp"
#include "host/equality.hpp"
#include "host/integer.hpp"
#include "host/json.hpp"
#include "host/log.hpp"
#include "host/parallel.hpp"
#include "host/text.hpp"
#include "host/threads.hpp"
#include "manifest/identity.hpp"
#include "manifest/persistence.hpp"
#include "manifest/sanitising.hpp"
#include "rotation/exclusion.hpp"
#include "siblings/distribution/artifact_rotation.hpp"
#include "siblings/distribution/directory_cursor.hpp"
#include "siblings/distribution/pinned_root.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

constexpr std::size_t PROOF_CHUNK = 512;  // members a worker proves at a time: fewer are not worth a thread

std::string text_of(const std::optional<std::int64_t>& number) {
  return number ? std::to_string(*number) : "None";
}

// The manifest's version and era as integers, both -1 when either does not convert.
std::pair<std::int64_t, std::int64_t> local_version_and_era(const Manifest& manifest) {
  try {
    return {to_int(manifest.version()), to_int(manifest.era_number())};
  } catch (const TypeError&) {
    return {-1, -1};
  } catch (const ValueError&) {
    return {-1, -1};
  }
}

// The active paths that exist: a file that was just proven does, only the others are looked for.
PathList existing_paths(const std::string& root, const PathList& active_paths,
                        const std::vector<std::string>& unproven) {
  std::set<std::string> missing(unproven.begin(), unproven.end());
  for (const auto& path : _existing_rotation_paths(root, unproven)) missing.erase(path);
  return active_paths.without([&](const std::string& path) { return missing.contains(path); });
}

}  // namespace

SyncDriver::SyncDriver(std::string data_dir, std::string server_url, std::int64_t market_id,
                       Collaborators collaborators, std::shared_ptr<SyncProgress> progress, Seams seams)
    : _data_dir(std::move(data_dir)),
      _server_url(std::move(server_url)),
      _market_id(market_id),
      _with(collaborators),
      _progress(std::move(progress)),
      _seams(std::move(seams)) {}

SyncResult SyncDriver::sync() {
  const WriterScope writer(_with.lock);
  return _sync_with_manifest_refresh();
}

SyncResult SyncDriver::_sync_with_manifest_refresh() {
  for (int restarts = 0;;) {
    try {
      return _sync_impl();
    } catch (const ManifestSupersededError& failure) {
      ++restarts;
      log::warning(
          "Manifest changed during sync; refreshing manifest and restarting download set (%d/%d): %s",
          restarts, SYNC_MANIFEST_SUPERSEDE_RESTART_LIMIT, failure.what());
      if (restarts >= SYNC_MANIFEST_SUPERSEDE_RESTART_LIMIT) throw;
    }
  }
}

SyncResult SyncDriver::_sync_impl() {
  _remove_sync_progress_json(_data_dir);  // a stale one never outlives the start of a sync
  _progress->on_phase("checking");
  _with.loader.adopt_selected_cohort();
  const VersionHints hints = _probe_version();
  if (auto result = _try_fast_path(hints)) return *result;
  return _full_sync();
}

SyncDriver::VersionHints SyncDriver::_probe_version() const {
  VersionHints hints;
  try {
    const HttpResult answer = _with.http._http_get(_server_url + "/data/manifest/version");
    if (answer.status == 401) throw AuthError("Authentication failed: HTTP 401");
    if (answer.status == 200) _parse_version_answer(answer.body, hints);
  } catch (const AuthError&) {
    throw;
  } catch (const ManifestError&) {
    throw;
  } catch (const SyncUnavailableError&) {
    throw;
  } catch (const SyncBackoffCancelled&) {
    throw;  // a stop request is no failure of the check: it ends the sync
  } catch (const std::exception& failure) {
    log::warning("Manifest version check failed: %s", failure.what());
  }
  return hints;
}

// The hints are filled as far as the answer can be read.
void SyncDriver::_parse_version_answer(const std::string& body, VersionHints& hints) const {
  try {
    const Document version_data = parse_json(body);
    _require_manifest_market_identity(version_data, _market_id, "manifest version response");
    const Document* version = find_member(version_data, "version");
    hints.version = to_int(version != nullptr ? *version : Document());
    const Document* era = find_member(version_data, "era_number");
    if (era != nullptr && !era->is_null()) hints.era = to_int(*era);
    if (const Document* hash = manifest_hash_hint(version_data)) hints.manifest_sha = *hash;
  } catch (const ManifestError&) {
    throw;
  } catch (const std::exception& failure) {
    log::debug("Manifest version response was not parseable: %s", failure.what());
  }
}

std::optional<SyncResult> SyncDriver::_try_fast_path(const VersionHints& hints) {
  const auto view = _with.active.get();
  if (!_fast_path_applies(*view, hints)) return std::nullopt;
  SyncResult result;
  const PlannedCohort planned = _plan(*view->manifest, /*is_new_manifest=*/false, result);
  try {
    _prove_local_state(*view, planned, result);
    return result;
  } catch (const SyncError& failure) {  // era errors are sync errors too
    log::warning("Manifest version matched but local metadata needs repair: %s", failure.what());
    return std::nullopt;
  }
}

bool SyncDriver::_fast_path_applies(const ActiveView& view, const VersionHints& hints) const {
  if (!view.manifest || !view.cohort) return false;
  if (_manifest_has_agent_bundle_declarations(*view.manifest)) return false;
  if (_manifest_has_retired_found_pnl_long_files(*view.manifest)) return false;

  const auto [local_version, local_era_number] = local_version_and_era(*view.manifest);
  if (local_version != hints.version || hints.manifest_sha.is_null()) return false;
  if (!_manifest_hash_hint_matches_local_state(_data_dir, local_version, local_era_number,
                                               hints.manifest_sha)) {
    log::info("Manifest version matched but manifest hash changed; fetching full manifest");
    return false;
  }
  if (local_era_number != hints.era) {
    throw EraError(fmt::format("Era mismatch: local era_number={}, server era_number={}", local_era_number,
                               text_of(hints.era)));
  }
  return true;
}

void SyncDriver::_prove_local_state(const ActiveView& view, const PlannedCohort& planned,
                                    SyncResult& result) {
  const Manifest& manifest = *view.manifest;
  auto local_vocabularies =
      std::make_shared<const Vocabularies>(_validate_manifest_vocabulary_files(view.data_dir, manifest));
  _with.shuffle_seed._validate_shuffle_seed_at_root(view.data_dir, *view.manifest_bytes);
  const std::vector<std::string> unproven = _prove_active_members(view, planned.active_relative_paths);
  _load_manifest_signals_index(view.data_dir, manifest);

  ActiveView renewed = view;
  renewed.vocabulary = local_vocabularies;
  _with.active.set(std::make_shared<const ActiveView>(std::move(renewed)));

  _apply_signal_result_counts(result, manifest);
  _with.planner._complete_rotation_promotion(
      planned.candidate_state, existing_paths(view.data_dir, planned.active_relative_paths, unproven),
      manifest, local_vocabularies.get());
  _apply_manifest_counts(result, manifest);
  _apply_vocabulary_metadata(result, *local_vocabularies);
  _cleanup_sync_tmp_files(_data_dir);
  // What had to be hashed just now is known to the next process too.
  _with.hash_cache._persist_hash_cache();
}

// Gives the active paths that are proven elsewhere, or not synced.
std::vector<std::string> SyncDriver::_prove_active_members(const ActiveView& view,
                                                           const PathList& paths) const {
  const client_manifest::PinnedRoot root(view.data_dir);
  const std::size_t chunks = (paths.size() + PROOF_CHUNK - 1) / PROOF_CHUNK;
  std::vector<std::vector<std::string>> unproven(chunks);
  const auto stop_check = sync_backoff::stop_check_of_this_thread();  // the workers ask through this copy
  parallel_in_order(chunks, usable_cores(), [&](std::size_t chunk) {
    client_manifest::DirectoryCursor cursor(root);
    const std::size_t end = std::min(paths.size(), (chunk + 1) * PROOF_CHUNK);
    for (std::size_t i = chunk * PROOF_CHUNK; i < end; ++i) {
      if (!_prove_member(root, cursor, *view.manifest, paths[i], stop_check))
        unproven[chunk].push_back(paths[i]);
    }
  });

  std::vector<std::string> others;
  for (const auto& of_chunk : unproven) others.insert(others.end(), of_chunk.begin(), of_chunk.end());
  return others;
}

// False for a member that is proven elsewhere, or not synced.
bool SyncDriver::_prove_member(const client_manifest::PinnedRoot& root,
                               client_manifest::DirectoryCursor& cursor, const Manifest& manifest,
                               const std::string& file_path,
                               const sync_backoff::StopCheck& stop_check) const {
  const auto file_info = manifest.entries().find(file_path);
  if (!file_info || file_info->is_null()) {
    throw SyncError("Active rotation path is missing from manifest: " + file_path);
  }
  if (_vocabulary_named_universe_from_path(file_path)) return false;
  if (_manifest_file_is_sync_excluded(*file_info)) return false;
  const bool cache_allowed = artifact_rotation::manifest_file_kind(*file_info) != "vault_module";
  if (!_with.hash_cache._local_file_matches_manifest(root, cursor, file_path, *file_info, cache_allowed,
                                                     stop_check)) {
    throw SyncError("Manifest version matched but local data files need repair");
  }
  return true;
}

SyncResult SyncDriver::_full_sync() {
  HttpResult answer = _with.http._http_get(_server_url + "/data/manifest");
  if (answer.status == 401) throw AuthError(fmt::format("Authentication failed: HTTP {}", answer.status));
  if (answer.status != 200) throw SyncError(fmt::format("Failed to fetch manifest: HTTP {}", answer.status));
  const auto body = std::make_shared<const std::string>(std::move(answer.body));

  // Sanitised as it is built.
  const auto server_manifest =
      std::make_shared<const Manifest>(_shared_full_distribution_manifest(body, "server manifest.json"));
  _require_manifest_market_identity(*server_manifest, _market_id, "server manifest.json");

  const bool is_new_manifest = !_is_active_manifest(*server_manifest, *body);
  _progress->on_phase("planning");
  SyncResult result;
  auto [active_relative_paths, candidate_state] = _plan(*server_manifest, is_new_manifest, result);
  _with.stager._stage_and_activate_local_cohort({.server_manifest = server_manifest,
                                                 .served_manifest_bytes = body,
                                                 .active_relative_paths = std::move(active_relative_paths),
                                                 .candidate_state = std::move(candidate_state),
                                                 .result = result});
  return result;
}

// Whether the served manifest is the one of the view; one that steps back behind it is refused.
bool SyncDriver::_is_active_manifest(const Manifest& server_manifest, const std::string& body) const {
  const auto view = _with.active.get();
  if (!view->manifest) return false;
  _refuse_backward_steps(*view, server_manifest, body);
  return host_equal(view->manifest->version(), server_manifest.version()) &&
         host_equal(view->manifest->era_number(), server_manifest.era_number()) && view->manifest_bytes &&
         *view->manifest_bytes == body;
}

void SyncDriver::_refuse_backward_steps(const ActiveView& view, const Manifest& server_manifest,
                                        const std::string& body) const {
  const Manifest& local = *view.manifest;
  if (!host_equal(server_manifest.era_number(), local.era_number())) {
    throw EraError(fmt::format("Era mismatch: local era_number={}, server era_number={}",
                               text::str(local.era_number()), text::str(server_manifest.era_number())));
  }
  const std::int64_t local_version = to_int(local.version());
  const std::int64_t server_version = to_int(server_manifest.version());
  if (server_version < local_version) {
    throw SyncError(fmt::format("Refusing manifest downgrade: local version={}, server version={}",
                                local_version, server_version));
  }
  if (server_version == local_version && view.manifest_bytes && *view.manifest_bytes != body) {
    throw SyncError("Refusing same-version manifest with different exact identity");
  }
}

// What only the plan needs ends with it: the artifacts of a large manifest would stay in memory for the whole
// sync.
SyncDriver::PlannedCohort SyncDriver::_plan(const Manifest& manifest, bool is_new_manifest,
                                            SyncResult& result) {
  const std::int64_t free_bytes = _seams.free_bytes(_data_dir);
  const Artifacts artifacts = _rotation_manifest_artifacts(manifest);
  const bool force_new_rotation =
      is_new_manifest || _with.planner._feature_rotation_should_rotate(manifest, artifacts);
  PlannedRotation planned =
      _with.planner._plan_feature_rotation_for_sync(manifest, artifacts, free_bytes, force_new_rotation);
  auto& [selection, candidate_state] = planned.rotation_plan;
  RotationPlanner::_precheck_rotation_disk_budget(selection, free_bytes,
                                                  /*enforce_default_cap=*/!planned.explicit_rotation_budget);
  result.era_number = to_int(manifest.era_number());
  _apply_rotation_result_fields(result, selection);
  return {std::move(selection.active_relative_paths), std::move(candidate_state)};
}

}  // namespace tidalcrest::sync
