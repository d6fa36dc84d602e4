#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "cohort/active_view.hpp"
#include "rotation/planner.hpp"

namespace tidalcrest::sync {

/// The view of a directory in which no proven cohort is selected.
std::shared_ptr<const ActiveView> flat_view(const std::string& data_dir);

/// The selected cohort as the disk names it, not yet proven; the flat view when there is none or it is
/// incomplete. Throws `ManifestError` for a selector that is corrupt JSON.
std::shared_ptr<const ActiveView> load_cohort_pointer(const std::string& data_dir);

/// The rotation state of the active root, else of the data directory.
std::optional<RotationState> load_initial_rotation_state(const std::string& data_dir, const ActiveView& view);

/// Whether adopting the selected cohort may take a manager to another era.
enum class EraChange { refused, allowed };

/// Brings the manager's view in step with what the selector names, each time with the same proof.
class CohortLoader {
 public:
  CohortLoader(std::string data_dir, std::int64_t market_id, RotationPlanner& planner,
               ActiveViewHolder& active);

  /// At construction: proves the loaded cohort under the shared distribution lock and a pin, and falls back
  /// to the flat view for any failure. Nothing to do in the flat state.
  void verify_at_start();

  /// Before a writer goes on: another process may have published since, or changed the members of the live
  /// cohort. When the disk shows another cohort than the view, adopts that one, proven as at construction, or
  /// the flat view when the proof fails or nothing is selected any more. The caller holds the sync lock and
  /// the exclusive distribution lock.
  ///
  /// Throws `EraError` for a cohort of another era, unless that is allowed: searches run on the era that the
  /// view is of, and only a transition stops them first.
  void adopt_selected_cohort(EraChange era_change = EraChange::refused);

 private:
  bool _is_in_step(const ActiveView& view) const;
  void _refuse_other_era(const Manifest& known) const;
  void _prove_selected_cohort();
  void _fall_back_to_flat_view(const std::exception& failure);

  const std::string _data_dir;
  const std::int64_t _market_id;
  RotationPlanner& _planner;
  ActiveViewHolder& _active;
};

}  // namespace tidalcrest::sync
