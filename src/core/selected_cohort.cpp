#include "core/selected_cohort.hpp"

#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {

std::shared_ptr<const local_cohort::Selection> selected_cohort(const std::string& data_dir, bool required) {
  while (true) {
    const auto selector_bytes = local_cohort::read_selector_bytes(data_dir);
    try {
      return local_cohort::load_active_cohort(data_dir, required);
    } catch (const LocalCohortError&) {
      if (local_cohort::read_selector_bytes(data_dir) == selector_bytes) throw;
    }
  }
}

}  // namespace tidalcrest::sync
