#pragma once

#include "tidalcrest/sync/document.hpp"

namespace tidalcrest::sync {

/// True only for a runtime module that names a platform other than this one.
bool _rotation_file_is_platform_excluded(const Document& file_info);
/// Files that this client never fetches.
bool _manifest_file_is_sync_excluded(const Document& file_info);

}  // namespace tidalcrest::sync
