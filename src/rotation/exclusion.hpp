#pragma once

#include "tidalcrest/sync/manifest_entries.hpp"

namespace tidalcrest::sync {

/// True only for a runtime module that names a platform other than this one.
bool _rotation_file_is_platform_excluded(const FileEntry& file_info);
/// Files that this client never fetches.
bool _manifest_file_is_sync_excluded(const FileEntry& file_info);

}  // namespace tidalcrest::sync
