#include "siblings/distribution/sync_progress.hpp"

#include "host/integer.hpp"
#include "host/json.hpp"

namespace tidalcrest::sync {

std::pair<bool, std::int64_t> manifest_file_size(const Document& file_info) {
  const Document* size = find_member(file_info, "size_bytes");
  if (size == nullptr || !size->is_number_integer()) return {false, 0};
  const auto bytes = try_int(*size);
  if (!bytes || *bytes < 0) return {false, 0};
  return {true, *bytes};
}

}  // namespace tidalcrest::sync
