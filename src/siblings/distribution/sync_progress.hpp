#pragma once

#include <cstdint>
#include <utility>

#include "tidalcrest/sync/manifest_entries.hpp"

namespace tidalcrest::sync {

/// Whether an entry's size is known (a non-negative integer), and the size, 0 when it is not.
std::pair<bool, std::int64_t> manifest_file_size(const FileEntry& file_info);

}  // namespace tidalcrest::sync
