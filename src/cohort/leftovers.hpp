#pragma once

#include <string>

#include "cohort/staging_roots.hpp"

namespace tidalcrest::sync {

/// Leaves of each member that killed or failed stagings for one manifest have brought, in whatever root, one
/// copy: the newest of its path and size. What they have brought is gathered in one root. So attempts that
/// all end early, each with copies of its own, fill neither the disk nor the directory. Done before
/// anything is brought into a new root, by the holder of the exclusive distribution lock.
void thin_out_earlier_attempts(const std::string& data_dir, const StagingRoots& roots);

}  // namespace tidalcrest::sync
