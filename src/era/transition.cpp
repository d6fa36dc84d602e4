#include "era/transition.hpp"

#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include "core/request_gate.hpp"
#include "download/local_files.hpp"
#include "era/library_floor.hpp"
#include "host/integer.hpp"
#include "host/local_path.hpp"
#include "host/log.hpp"
#include "host/scope_exit.hpp"
#include "host/text.hpp"
#include "manifest/identity.hpp"
#include "manifest/persistence.hpp"
#include "siblings/auth/auth.hpp"
#include "siblings/auth/identity.hpp"
#include "siblings/distribution/contained_files.hpp"
#include "siblings/search_tracking/search_tracker.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

// The host's `>`: numbers by value, strings by their text, nothing else.
bool is_greater(const Document& a, const Document& b) {
  const auto is_number = [](const Document& value) { return value.is_number() || value.is_boolean(); };
  if (a.is_string() && b.is_string())
    return a.get_ref<const std::string&>() > b.get_ref<const std::string&>();
  if (!is_number(a) || !is_number(b)) {
    throw TypeError(fmt::format("'>' not supported between instances of '{}' and '{}'", text::type_name(a),
                                text::type_name(b)));
  }
  if (a.is_number_float() || b.is_number_float()) {
    const auto value_of = [](const Document& value) {
      return value.is_boolean() ? static_cast<double>(value.get<bool>()) : value.get<double>();
    };
    return value_of(a) > value_of(b);
  }
  return to_int(a) > to_int(b);
}

// One transition: its parts in the order in which they run, and the values that they share.
class TransitionRun {
 public:
  TransitionRun(const std::string& data_dir, const std::string& server_url, std::int64_t market_id,
                const EraTransition::Collaborators& with, const Seams& seams, const Document& new_era_number)
      : _data_dir(data_dir),
        _server_url(server_url),
        _market_id(market_id),
        _with(with),
        _seams(seams),
        _library(deployment::module_seam().current()),
        _search_tracking(search_tracking::module_seam().current()),
        _new_era_number(new_era_number),
        _new_era_text(text::str(new_era_number)) {
    const auto manifest = _with.active.get()->manifest;
    if (manifest) _previous_era_number = manifest->era_number();
    _has_real_era_advance =
        _previous_era_number.is_null() || is_greater(_new_era_number, _previous_era_number);
  }

  void mark();
  void take_locks();
  void require_library();
  void fetch_manifest();
  void plan_rotation();
  void publish();
  void confirm_publication(bool restart_wanted);
  void release_locks() noexcept;
  void notify() const;
  void deliver_refreshes() const;
  void finish() noexcept;

  /// Whether the server has moved past the target; then the run ends without publishing.
  bool note_superseding_era();
  const std::optional<std::int64_t>& superseded_era_number() const { return _superseded_era_number; }
  bool should_restart_searches() const { return _should_restart_searches; }

 private:
  // An era that is entered anew may not be closing already; the one that goes on may.
  bool may_be_closing() const { return !_has_real_era_advance; }
  void confirm_active_era() const { _with.active_era._confirm_active_era(_new_era_number, may_be_closing()); }
  std::optional<std::int64_t> superseding_era() const {
    return _with.active_era._check_transition_superseded(_new_era_number, may_be_closing());
  }
  std::int64_t era_number_of_manifest() const;
  void transition_publish_gate() const;
  std::shared_ptr<search_tracking::SearchTracker> open_search_tracker() const;
  std::string transition_lock_path() const { return join_path(_data_dir, TRANSITION_LOCK_FILENAME); }

  const std::string& _data_dir;
  const std::string& _server_url;
  const std::int64_t _market_id;
  const EraTransition::Collaborators& _with;
  const Seams& _seams;
  LibraryFloor _library;
  const std::shared_ptr<search_tracking::Module> _search_tracking;

  const Document& _new_era_number;
  const std::string _new_era_text;
  Document _previous_era_number;
  bool _has_real_era_advance = false;

  std::unique_lock<HolderMutex> _sync_lock;
  bool _distribution_lock_held = false;
  std::shared_ptr<const std::string> _manifest_bytes;
  std::shared_ptr<const Manifest> _new_manifest;
  std::int64_t _manifest_era_number = 0;
  PlannedRotation _planned;

  std::optional<std::int64_t> _superseded_era_number;
  std::optional<std::vector<RefreshPayload>> _refresh_payloads_to_deliver;
  bool _perform_era_advance_notifications = false;
  bool _should_restart_searches = false;
};

void TransitionRun::mark() {
  _with.state.enter_transition();
  try {
    client_manifest::write_contained_regular_file(_data_dir, TRANSITION_LOCK_FILENAME,
                                                  std::to_string(::getpid()),
                                                  /*allow_replace=*/true);
  } catch (const std::exception& failure) {
    log::warning("Failed to write transition lock file: %s", failure.what());
  }
}

void TransitionRun::take_locks() {
  _sync_lock = _with.lock.wait_for_sync_lock();
  _with.lock._acquire_flock();
  _distribution_lock_held = true;
  // Another process may have published since this manager last looked, and its era too.
  _with.loader.adopt_selected_cohort(EraChange::allowed);
}

void TransitionRun::require_library() {
  _library.look_for_update();
  const Document era_config = _with.active_era._confirm_active_era(_new_era_number, may_be_closing());
  _library.require(era_config, _new_era_text);
}

void TransitionRun::fetch_manifest() {
  HttpResult answer = _with.http._http_get(_server_url + "/data/manifest");
  if (answer.status != 200) {
    throw SyncError(fmt::format("Failed to fetch era {} manifest: HTTP {}", _new_era_text, answer.status));
  }
  _manifest_bytes = std::make_shared<const std::string>(std::move(answer.body));
  const std::string label = fmt::format("era {} transition manifest.json", _new_era_text);
  // Sanitised as it is built.
  _new_manifest =
      std::make_shared<const Manifest>(_shared_full_distribution_manifest(_manifest_bytes, label));
  _require_manifest_market_identity(*_new_manifest, _market_id, label);
  _manifest_era_number = era_number_of_manifest();
  if (_manifest_era_number != to_int(_new_era_number)) {
    throw EraError(fmt::format("Era transition manifest era_number={} does not match active era_number={}",
                               _manifest_era_number, _new_era_text));
  }
}

std::int64_t TransitionRun::era_number_of_manifest() const {
  const Document& value = _new_manifest->era_number();
  const auto invalid = [&value] {
    return EraError("Era transition manifest has invalid era_number=" + text::repr(value));
  };
  try {
    return to_int(value);
  } catch (const TypeError&) {
    throw invalid();
  } catch (const ValueError&) {
    throw invalid();
  }
}

void TransitionRun::plan_rotation() {
  const std::int64_t free_bytes = _seams.free_bytes(_data_dir);
  _planned = _with.planner._plan_feature_rotation_for_sync(*_new_manifest, free_bytes);
  RotationPlanner::_precheck_rotation_disk_budget(_planned.rotation_plan.selection, free_bytes,
                                                  /*enforce_default_cap=*/!_planned.explicit_rotation_budget);
}

bool TransitionRun::note_superseding_era() {
  _superseded_era_number = superseding_era();
  if (!_superseded_era_number) return false;
  _with.state.set_status_message(fmt::format("Era {} superseded by era {}; restarting transition.",
                                             _new_era_text, *_superseded_era_number));
  return true;
}

void TransitionRun::publish() {
  SyncResult transition_result;
  transition_result.era_number = _manifest_era_number;
  _apply_rotation_result_fields(transition_result, _planned.rotation_plan.selection);
  _with.state.set_status_message(std::nullopt);
  try {
    _with.stager._stage_and_activate_local_cohort(
        {.server_manifest = _new_manifest,
         .served_manifest_bytes = _manifest_bytes,
         .active_relative_paths = _planned.rotation_plan.selection.active_relative_paths,
         .candidate_state = _planned.rotation_plan.candidate_state,
         .result = transition_result,
         .pre_publish_check = [this] { transition_publish_gate(); }});
  } catch (const ManifestSupersededError&) {
    if (!note_superseding_era()) throw;
  }
}

void TransitionRun::transition_publish_gate() const {
  const auto superseding = superseding_era();
  if (!superseding) return;
  throw ManifestSupersededError(
      fmt::format("era {} was superseded by era {} before cohort publication", _new_era_text, *superseding));
}

void TransitionRun::confirm_publication(bool restart_wanted) {
  confirm_active_era();
  const auto rotation_state = _with.planner.active_rotation_state();
  const auto vocabulary = _with.active.get()->vocabulary;
  _refresh_payloads_to_deliver = _with.search_consumers._rotation_search_refresh_payloads(
      rotation_state.value_or(RotationState{}), vocabulary.get(), _new_manifest.get());
  _perform_era_advance_notifications = _has_real_era_advance;
  if (!restart_wanted) return;
  confirm_active_era();
  _should_restart_searches = true;
}

void TransitionRun::release_locks() noexcept {
  if (std::exchange(_distribution_lock_held, false)) _with.lock._release_flock();
  if (_sync_lock.owns_lock()) _sync_lock.unlock();
}

void TransitionRun::notify() const {
  if (!_perform_era_advance_notifications) return;
  try {
    auth::notify_era_change(to_int(_new_era_number));
  } catch (const std::exception& failure) {
    log::warning("Failed to notify auth about era change: %s", failure.what());
  }
  const auto tracker = open_search_tracker();
  try {
    tracker->handle_era_transition(to_int(_new_era_number), try_int(_previous_era_number));
  } catch (...) {
    tracker->close();
    throw;
  }
  tracker->close();
}

std::shared_ptr<search_tracking::SearchTracker> TransitionRun::open_search_tracker() const {
  std::optional<identity::Identity> identity;
  try {
    identity = identity::resolve_identity_for_data_dir(_data_dir);
  } catch (const std::exception&) {
    // No identity.
  }
  try {
    return _search_tracking->open(_data_dir, identity);
  } catch (const std::exception&) {
    return _search_tracking->open(_data_dir, std::nullopt);
  }
}

void TransitionRun::deliver_refreshes() const {
  if (!_refresh_payloads_to_deliver) return;
  SearchConsumers::_deliver_rotation_search_refresh_payloads(*_refresh_payloads_to_deliver);
}

void TransitionRun::finish() noexcept {
  _with.state.set_status_message(std::nullopt);
  _with.state.leave_transition();
  release_locks();
  const std::string path = transition_lock_path();
  if (::unlink(path.c_str()) == 0 || errno == ENOENT) return;
  log::debug("best-effort transition_lock cleanup failed for %s: %s", path,
             std::generic_category().message(errno));
}

}  // namespace

EraTransition::EraTransition(std::string data_dir, std::string server_url, std::int64_t market_id,
                             Collaborators collaborators, Seams seams)
    : _data_dir(std::move(data_dir)),
      _server_url(std::move(server_url)),
      _market_id(market_id),
      _with(collaborators),
      _seams(std::move(seams)) {}

void EraTransition::trigger_era_transition(const Document& new_era_number, const SearchesFn& kill_searches_fn,
                                           const SearchesFn& restart_searches_fn) {
  std::optional<std::int64_t> superseded_era_number;
  {
    TransitionRun run(_data_dir, _server_url, _market_id, _with, _seams, new_era_number);
    const ScopeExit finish([&run] { run.finish(); });
    run.mark();
    if (kill_searches_fn) kill_searches_fn();
    run.take_locks();
    run.require_library();
    run.fetch_manifest();
    run.plan_rotation();
    if (!run.note_superseding_era()) run.publish();
    superseded_era_number = run.superseded_era_number();
    if (!superseded_era_number) run.confirm_publication(static_cast<bool>(restart_searches_fn));
    // From here on callbacks may call back into the manager.
    run.release_locks();
    run.notify();
    run.deliver_refreshes();
    if (run.should_restart_searches()) restart_searches_fn();
  }
  if (!superseded_era_number) return;
  try {
    const WriterScope writer(_with.lock);  // by now another process may stage; its files are no orphans
    _cleanup_sync_tmp_files(_data_dir);
  } catch (const std::exception& failure) {
    log::debug("Failed to clean superseded tmp files: %s", failure.what());
  }
  trigger_era_transition(*superseded_era_number, kill_searches_fn, restart_searches_fn);
}

}  // namespace tidalcrest::sync
