#include "cohort/cohort_stager.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <future>
#include <iterator>
#include <limits>
#include <set>
#include <unordered_set>

#include "artifacts/manifest_entry.hpp"
#include "cohort/leftovers.hpp"
#include "cohort/result_fields.hpp"
#include "cohort/salvage.hpp"
#include "cohort/staged_members.hpp"
#include "cohort/staging_roots.hpp"
#include "download/local_files.hpp"
#include "host/integer.hpp"
#include "host/release_memory.hpp"
#include "host/scope_exit.hpp"
#include "host/text.hpp"
#include "host/threads.hpp"
#include "manifest/identity.hpp"
#include "manifest/paths.hpp"
#include "siblings/distribution/artifact_rotation.hpp"
#include "siblings/distribution/contained_files.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

using shuffle_seed_state::SHUFFLE_SEED_FILE;
using shuffle_seed_state::SHUFFLE_SEED_METADATA_FILE;

std::set<std::string> normalised_paths(const std::vector<std::string>& paths) {
  std::set<std::string> normalised;
  for (const auto& path : paths) normalised.insert(_safe_manifest_relative_path(path));
  return normalised;
}

ManifestGeneration generation_of(const Manifest& manifest) {
  ManifestGeneration generation = data_origin_of(manifest);
  generation.version = to_int(manifest.version());
  generation.era_number = to_int(manifest.era_number());
  return generation;
}

// The entry of the declared sidecar.
std::pair<std::string, FileEntry> required_signals_index(const Manifest& manifest) {
  const auto path = _manifest_signals_index_path(manifest);
  const auto info = path ? manifest.file_entry(*path) : std::nullopt;
  if (!info) throw SyncError("Candidate manifest is missing its signals_index file entry");
  return {*path, *info};
}

void copy_seed_pair(const StagingRoots& roots, const std::set<std::string>& forced_paths) {
  for (const char* path : {SHUFFLE_SEED_FILE, SHUFFLE_SEED_METADATA_FILE}) {
    if (forced_paths.contains(path)) continue;
    try {
      client_manifest::copy_contained_regular_file(roots.active_root, path, roots.candidate_root, path);
    } catch (const FileNotFoundError&) {
      // Nothing to bring over: the pair is fetched.
    }
  }
}

// More than can be counted is the most that can be.
std::int64_t declared_bytes(const FilesToDownload& files) {
  std::int64_t total = 0;
  for (const auto& file : files) {
    const Document size = file.file_info.value("size_bytes");
    if (!text::truthy(size)) continue;
    if (__builtin_add_overflow(total, to_int(size), &total)) return std::numeric_limits<std::int64_t>::max();
  }
  return total;
}

void require_disk_space(std::int64_t total_needed, std::int64_t free_bytes) {
  if (total_needed <= free_bytes) return;
  throw DiskSpaceError(fmt::format("Insufficient disk space: need {} bytes, have {} bytes available",
                                   total_needed, free_bytes));
}

// Writes back what is staged while it is still proven, so that the one flush before the publication finds
// little left to do: it is a quarter of a first sync otherwise.
std::future<void> begin_flush(const client_manifest::PinnedRoot& root) {
  try {
    return std::async(std::launch::async, [&root] {
      set_thread_name("tc-sync-flush");
      local_cohort::make_durable(root);
    });
  } catch (const std::system_error&) {
    return {};  // no thread to be had: the flush before the publication does it all
  }
}

bool any_vocabulary(const FilesToDownload& files) {
  return std::any_of(files.begin(), files.end(), [](const FileToDownload& file) {
    return _vocabulary_named_universe_from_path(file.file_path).has_value();
  });
}

bool is_found_pnl(const FileToDownload& file) {
  return is_found_pnl_file_kind(artifact_rotation::manifest_file_kind(file.file_info));
}

std::vector<std::string> local_paths(const FilesToDownload& files, const std::string& selected_root) {
  std::vector<std::string> paths;
  paths.reserve(files.size());
  for (const auto& file : files) paths.push_back(_manifest_local_path(selected_root, file.file_path));
  return paths;
}

std::vector<std::string> without_duplicates(const std::vector<std::string>& paths) {
  std::unordered_set<std::string> seen;
  std::vector<std::string> unique;
  for (const auto& path : paths) {
    if (seen.insert(path).second) unique.push_back(path);
  }
  return unique;
}

// One staging: its parts in the order in which `_stage_and_activate_local_cohort` runs them.
class StagingRun {
 public:
  StagingRun(const std::string& data_dir, const CohortStager::Collaborators& with, SyncProgress& progress,
             const Seams& seams, const StagingRequest& request, const StagingRoots& roots,
             std::set<std::string> forced_paths)
      : _data_dir(data_dir),
        _with(with),
        _progress(progress),
        _seams(seams),
        _request(request),
        _manifest(*request.server_manifest),
        _manifest_bytes(*request.served_manifest_bytes),
        _roots(roots),
        _staged(roots.candidate_root),
        _forced_paths(std::move(forced_paths)),
        _stop_check(sync_backoff::stop_check_of_this_thread()) {}

  void gather_members();
  void gather_validated_artifacts();
  void prove_candidate_artifacts();
  void prepare_promotion();
  void prove_members_and_complete();
  void publish();
  void activate();
  void fill_result();
  void deliver_refreshes() const {
    SearchConsumers::_deliver_rotation_search_refresh_payloads(_refresh_payloads);
  }
  /// On every way out: ends the flush, and leaves nothing to be taken over that may not be on the disk.
  void drop_unflushed_members() noexcept;

 private:
  void reuse_signals_index(const std::string& path, const FileEntry& info) const;
  void download_members();
  void end_flush();
  void make_visible();
  void repair_live_generation();
  void drop_proof();
  Vocabularies prove_root(const std::string& root) const;

  const std::string& _data_dir;
  const CohortStager::Collaborators& _with;
  SyncProgress& _progress;
  const Seams& _seams;
  const StagingRequest& _request;
  const Manifest& _manifest;
  const std::string& _manifest_bytes;
  const StagingRoots& _roots;
  const client_manifest::PinnedRoot _staged;  // the candidate root, opened before the first byte came in
  const std::set<std::string> _forced_paths;
  const StopCheck _stop_check;

  std::string _signals_index_path;
  SelectedMembers _members;
  FilesToDownload _new_found_pnl;
  Vocabularies _staged_vocabularies;
  RotationState _promoted_rotation_state;
  std::vector<RefreshPayload> _refresh_payloads;
  std::vector<std::string> _completion_paths;
  local_cohort::ArtifactIdentities _artifact_identities;
  local_cohort::CompletionRecord _completion;
  std::future<void> _flush;  // of the staged members; its end is waited for on every way out
  bool _flush_failed = false;
  std::shared_ptr<const local_cohort::Selection> _selection;
  std::shared_ptr<const Vocabularies> _selected_vocabularies;
};

void StagingRun::reuse_signals_index(const std::string& path, const FileEntry& info) const {
  // The flat state never reuses a signals index.
  if (!_roots.active_is_generation || _forced_paths.contains(path)) return;
  reuse_proven_file(path, info, _roots, _with.hash_cache);
}

void StagingRun::download_members() {
  const auto& files = _members.files_to_download;
  require_disk_space(declared_bytes(files), _seams.free_bytes(_data_dir));
  _progress.on_phase("downloading");
  _progress.on_download_set(static_cast<std::int64_t>(files.size()), declared_bytes(files));
  if (!files.empty()) _write_sync_progress_json(_data_dir, _manifest, files, _seams);
  _with.downloads._download_files_parallel(files, _request.result, generation_of(_manifest),
                                           _roots.candidate_root);
  _flush = begin_flush(_staged);
  release_memory(_members.files_to_download);
}

void StagingRun::end_flush() {
  if (_flush.valid()) _flush.get();
}

void StagingRun::gather_members() {
  _progress.on_phase("comparing");
  thin_out_earlier_attempts(_data_dir, _roots);
  _members = reuse_selected_members(_manifest, _request.active_relative_paths, _forced_paths, _roots,
                                    _data_dir, _with.hash_cache, _stop_check);
  salvage_earlier_attempts(_data_dir, _roots, _forced_paths, _with.hash_cache, _stop_check, _members);
  const auto [signals_index_path, signals_index_info] = required_signals_index(_manifest);
  _signals_index_path = signals_index_path;
  reuse_signals_index(signals_index_path, signals_index_info);
  copy_seed_pair(_roots, _forced_paths);
  download_members();
}

// What the download set does not name: fetched where it is not there, validated in any case.
void StagingRun::gather_validated_artifacts() {
  SyncResult& result = _request.result;
  const std::string& candidate_root = _roots.candidate_root;
  _progress.on_phase("validating");
  _with.signals_index._download_signals_index(_manifest, candidate_root, &result);
  _apply_signal_result_counts(result, _manifest, _members.new_files);
  const bool vocab_downloaded = _with.vocabulary_files._download_vocabulary(_manifest, candidate_root);
  result.vocabulary_downloaded = vocab_downloaded || any_vocabulary(_members.new_files);
  result.shuffle_seed_downloaded =
      _with.shuffle_seed._download_shuffle_seed(_manifest, candidate_root, &_manifest_bytes);
  std::copy_if(_members.new_files.begin(), _members.new_files.end(), std::back_inserter(_new_found_pnl),
               is_found_pnl);
  release_memory(_members.new_files);
}

// The artifacts of a root that are checked beyond size and digest; gives its merged vocabularies.
Vocabularies StagingRun::prove_root(const std::string& root) const {
  _load_manifest_signals_index(root, _manifest);
  Vocabularies vocabularies = _validate_manifest_vocabulary_files(root, _manifest);
  _with.shuffle_seed._validate_shuffle_seed_at_root(root, _manifest_bytes);
  return vocabularies;
}

void StagingRun::prove_candidate_artifacts() { _staged_vocabularies = prove_root(_roots.candidate_root); }

void StagingRun::prepare_promotion() {
  // Computed before anything changes, recorded and delivered only after the publication.
  _promoted_rotation_state = artifact_rotation::promote_rotation_candidate(
      _with.planner.active_rotation_state(), _request.candidate_state, _members.selected_paths);
  _refresh_payloads = _with.search_consumers._rotation_search_refresh_payloads(
      _promoted_rotation_state, &_staged_vocabularies, &_manifest);
}

void StagingRun::prove_members_and_complete() {
  _progress.on_phase("proving");
  DerivedArtifacts snapshots =
      derive_runtime_snapshots(_manifest, _roots.candidate_root, _members.selected_paths);
  _completion_paths = std::move(_members.selected_paths);
  if (std::find(_completion_paths.begin(), _completion_paths.end(), _signals_index_path) ==
      _completion_paths.end()) {
    _completion_paths.push_back(_signals_index_path);
  }
  std::map<std::string, Document> derived_artifacts;
  for (auto& [snapshot_path, mapping] : snapshots) {
    _completion_paths.push_back(snapshot_path);
    derived_artifacts[snapshot_path] = std::move(mapping);
  }
  _artifact_identities =
      prove_exact_identities(_manifest, _roots.candidate_root, _completion_paths, _stop_check,
                             _roots.same_identity ? nullptr : &_with.hash_cache);
  _completion = local_cohort::build_completion_payload(_manifest_bytes, _completion_paths,
                                                       _artifact_identities, derived_artifacts);
  local_cohort::complete_generation(_roots.candidate_root, _manifest_bytes, _completion);
  if (!_roots.same_identity) drop_proof();
}

// Only a repair needs it further; for a large generation it is most of what a staging holds.
void StagingRun::drop_proof() {
  release_memory(_completion_paths);
  release_memory(_artifact_identities);
  release_memory(_completion.bytes);
}

void StagingRun::publish() {
  _progress.on_phase("publishing");
  try {
    end_flush();  // may take long, so the veto comes after it
    if (_request.pre_publish_check) _request.pre_publish_check();
    make_visible();
  } catch (const local_cohort::FlushError&) {
    _flush_failed = true;
    throw;
  }
  _selected_vocabularies = std::make_shared<const Vocabularies>(prove_root(_selection->root_dir));
}

void StagingRun::make_visible() {
  if (_roots.same_identity) return repair_live_generation();
  _selection = local_cohort::publish_manifest(_data_dir, _manifest_bytes, &_staged);
}

void StagingRun::repair_live_generation() {
  const auto copied_paths = repair_active_generation(_roots.candidate_root, _roots.active_root,
                                                     _completion_paths, _artifact_identities);
  try {
    // The members reach the disk before the record that vouches for them.
    local_cohort::make_durable(_staged);
  } catch (const local_cohort::FlushError&) {
    take_back_repair(_roots.active_root, copied_paths);
    throw;
  }
  local_cohort::complete_generation(_roots.active_root, _manifest_bytes, _completion);
  _selection = local_cohort::load_active_cohort(_data_dir, /*required=*/true);
}

void StagingRun::drop_unflushed_members() noexcept {
  try {
    end_flush();
  } catch (const local_cohort::FlushError&) {
    _flush_failed = true;
  } catch (const std::exception&) {
    // It never began, so the disk has told nothing. What ends the staging is on its way already.
  }
  if (_flush_failed && !_roots.same_identity) remove_unflushed_root(_data_dir, _manifest_bytes);
}

void StagingRun::activate() {
  _with.active.set(std::make_shared<const ActiveView>(ActiveView{
      .cohort = _selection,
      .data_dir = _selection->root_dir,
      .manifest_bytes = _request.served_manifest_bytes,
      .manifest = _request.server_manifest,
      .vocabulary = _selected_vocabularies,
  }));
  _with.planner._write_promoted_rotation_state(_promoted_rotation_state);
  _with.hash_cache._persist_hash_cache();
}

void StagingRun::fill_result() {
  SyncResult& result = _request.result;
  _apply_vocabulary_metadata(result, *_selected_vocabularies);
  _apply_manifest_counts(result, _manifest);
  result.found_pnl_paths_downloaded = local_paths(_new_found_pnl, _selection->root_dir);
}

}  // namespace

CohortStager::CohortStager(std::string data_dir, std::int64_t market_id, Collaborators collaborators,
                           std::shared_ptr<SyncProgress> progress, Seams seams)
    : _data_dir(std::move(data_dir)),
      _market_id(market_id),
      _with(collaborators),
      _progress(std::move(progress)),
      _seams(std::move(seams)) {}

void CohortStager::_stage_and_activate_local_cohort(const StagingRequest& request) {
  _require_manifest_market_identity(*request.server_manifest, _market_id, "candidate cohort manifest.json");
  const StagingRoots roots =
      choose_staging_roots(_data_dir, *_with.active.get(), *request.served_manifest_bytes, _seams);
  const ScopeExit clean_up([&] {
    _remove_sync_progress_json(_data_dir);
    remove_repair_staging_root(_data_dir, roots);
  });
  StagingRun run(_data_dir, _with, *_progress, _seams, request, roots,
                 normalised_paths(request.force_download_paths));
  const ScopeExit end_flush([&] { run.drop_unflushed_members(); });
  run.gather_members();
  run.gather_validated_artifacts();
  run.prove_candidate_artifacts();
  run.prepare_promotion();
  run.prove_members_and_complete();
  run.publish();
  run.activate();
  run.fill_result();
  run.deliver_refreshes();
}

void CohortStager::_stage_active_manifest_with_required_paths(
    const std::vector<std::string>& required_paths, SyncResult& result,
    const std::vector<std::string>& force_download_paths) {
  const auto view = _with.active.get();
  if (!view->manifest) throw SyncError("active manifest is required for cohort staging");
  if (!view->manifest_bytes) throw SyncError("exact active manifest bytes are required for cohort staging");
  const PlannedRotation planned = _with.planner._plan_feature_rotation_for_sync(
      *view->manifest, _seams.free_bytes(_data_dir), /*force_new_candidate=*/false);
  const RotationPlan rotation_plan = _rotation_plan_with_required_paths(
      planned.rotation_plan, *view->manifest, without_duplicates(required_paths));
  result.era_number = to_int(view->manifest->era_number());
  _apply_rotation_result_fields(result, rotation_plan.selection);
  _stage_and_activate_local_cohort({.server_manifest = view->manifest,
                                    .served_manifest_bytes = view->manifest_bytes,
                                    .active_relative_paths = rotation_plan.selection.active_relative_paths,
                                    .candidate_state = rotation_plan.candidate_state,
                                    .result = result,
                                    .force_download_paths = force_download_paths});
}

}  // namespace tidalcrest::sync
