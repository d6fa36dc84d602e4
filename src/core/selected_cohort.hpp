#pragma once

#include <memory>
#include <string>

#include "siblings/distribution/local_cohort.hpp"

namespace tidalcrest::sync {

/// `local_cohort::load_active_cohort` for a reader without a lock: looks again where a publication replaced
/// the selector, and a collection the old generation, between its two reads.
std::shared_ptr<const local_cohort::Selection> selected_cohort(const std::string& data_dir, bool required);

}  // namespace tidalcrest::sync
