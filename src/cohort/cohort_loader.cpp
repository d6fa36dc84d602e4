#include "cohort/cohort_loader.hpp"

#include <fmt/format.h>

#include "artifacts/signals_index.hpp"
#include "artifacts/vocabulary.hpp"
#include "host/equality.hpp"
#include "host/json.hpp"
#include "host/log.hpp"
#include "host/text.hpp"
#include "manifest/identity.hpp"
#include "siblings/distribution/lock.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {

std::shared_ptr<const ActiveView> flat_view(const std::string& data_dir) {
  return std::make_shared<const ActiveView>(ActiveView{nullptr, data_dir, nullptr, nullptr, nullptr});
}

std::shared_ptr<const ActiveView> load_cohort_pointer(const std::string& data_dir) {
  try {
    const auto selection = local_cohort::load_active_cohort(data_dir, /*required=*/false);
    if (!selection) return flat_view(data_dir);
    return std::make_shared<const ActiveView>(
        ActiveView{selection, selection->root_dir, selection->manifest_bytes, nullptr, nullptr});
  } catch (const ManifestJsonError& failure) {
    throw ManifestError(failure.what());
  } catch (const LocalCohortError& failure) {
    log::warning(
        "Root manifest has no complete immutable local cohort; treating it as unverified legacy state until "
        "sync: %s",
        failure.what());
    return flat_view(data_dir);
  }
}

std::optional<RotationState> load_initial_rotation_state(const std::string& data_dir,
                                                         const ActiveView& view) {
  auto state = load_feature_rotation_state(view.data_dir);
  if (!state && view.data_dir != data_dir) state = load_feature_rotation_state(data_dir);
  return state;
}

CohortLoader::CohortLoader(std::string data_dir, std::int64_t market_id, RotationPlanner& planner,
                           ActiveViewHolder& active)
    : _data_dir(std::move(data_dir)), _market_id(market_id), _planner(planner), _active(active) {}

void CohortLoader::verify_at_start() {
  if (!_active.get()->cohort) return;
  try {
    const DistributionLock shared = acquire_distribution_lock(_data_dir, /*exclusive=*/false);
    _prove_selected_cohort();
  } catch (const std::exception& failure) {
    _fall_back_to_flat_view(failure);
  }
}

void CohortLoader::adopt_selected_cohort(EraChange era_change) {
  const auto view = _active.get();
  if (_is_in_step(*view)) return;
  if (era_change == EraChange::refused && view->manifest) _refuse_other_era(*view->manifest);
  try {
    // The publisher's state first: the proof brings it in line with the manifest and may write it back, and
    // an older one must not go over it.
    _planner._adopt_rotation_state(load_feature_rotation_state(_data_dir));
    _prove_selected_cohort();
  } catch (const SyncBackoffCancelled&) {
    throw;  // a stop request says nothing about the cohort
  } catch (const std::exception& failure) {
    _fall_back_to_flat_view(failure);
  }
}

// The same manifest alone does not say it: a repair, a rotation or an on-demand feature under the live
// manifest moves only the completion record.
bool CohortLoader::_is_in_step(const ActiveView& view) const {
  if (!view.cohort) return !local_cohort::read_selector_bytes(_data_dir).has_value();
  if (!local_cohort::selector_holds(_data_dir, *view.manifest_bytes)) return false;
  if (local_cohort::has_same_record(*view.cohort)) return true;
  try {
    return local_cohort::load_active_cohort(_data_dir, /*required=*/true) == view.cohort;
  } catch (const LocalCohortError&) {
    return true;  // damaged since: whoever goes on proves and mends it
  }
}

void CohortLoader::_refuse_other_era(const Manifest& known) const {
  std::shared_ptr<const local_cohort::Selection> selection;
  try {
    selection = local_cohort::load_active_cohort(_data_dir, /*required=*/false);
  } catch (const std::exception&) {
    return;  // no whole cohort: its proof tells why
  }
  if (!selection) return;
  const Document* era_number = find_member(selection->manifest->head(), "era_number");
  if (era_number == nullptr || host_equal(*era_number, known.era_number())) return;
  throw EraError(fmt::format("Era mismatch: local era_number={}, server era_number={}",
                             text::str(known.era_number()), text::str(*era_number)));
}

// The pin is the authority: the cohort may have moved since the view was made.
void CohortLoader::_prove_selected_cohort() {
  const local_cohort::Pin pin = local_cohort::pin_active_cohort(_data_dir);
  const auto& selection = pin.selection;
  // Parsed from the exact bytes when the selection was loaded.
  auto manifest = std::make_shared<const Manifest>(selection->manifest);
  _require_manifest_market_identity(*manifest, _market_id, "active local cohort manifest.json");
  _planner._normalize_active_rotation_state_for_manifest(*manifest);
  _load_manifest_signals_index(selection->root_dir, *manifest);
  auto vocabulary = std::make_shared<const Vocabularies>(
      _validate_manifest_vocabulary_files(selection->root_dir, *manifest));
  _active.set(
      std::make_shared<const ActiveView>(ActiveView{selection, selection->root_dir, selection->manifest_bytes,
                                                    std::move(manifest), std::move(vocabulary)}));
}

void CohortLoader::_fall_back_to_flat_view(const std::exception& failure) {
  log::warning("Failed to load verified immutable local cohort; the first sync must repair it: %s",
               failure.what());
  _active.set(flat_view(_data_dir));
}

}  // namespace tidalcrest::sync
