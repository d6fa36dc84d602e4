#include "siblings/distribution/sync_progress.hpp"

#include "host/integer.hpp"

namespace tidalcrest::sync {

std::pair<bool, std::int64_t> manifest_file_size(const FileEntry& file_info) {
  const Document size = file_info.value("size_bytes");
  if (!size.is_number_integer()) return {false, 0};
  const auto bytes = try_int(size);
  if (!bytes || *bytes < 0) return {false, 0};
  return {true, *bytes};
}

}  // namespace tidalcrest::sync
