#include "rotation/exclusion.hpp"

#include <string>

#include "host/text.hpp"
#include "manifest/sanitising.hpp"
#include "siblings/distribution/artifact_rotation.hpp"
#include "siblings/runtime/modules.hpp"

namespace tidalcrest::sync {

bool _rotation_file_is_platform_excluded(const FileEntry& file_info) {
  if (!is_runtime_module_kind(artifact_rotation::manifest_file_kind(file_info))) return false;
  const Document platform = file_info.value("platform");
  return text::truthy(platform) && text::str(platform) != CURRENT_PLATFORM;
}

bool _manifest_file_is_sync_excluded(const FileEntry& file_info) {
  return _is_unsupported_runtime_module_file("", file_info) || _rotation_file_is_platform_excluded(file_info);
}

}  // namespace tidalcrest::sync
