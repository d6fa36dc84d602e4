#include "cohort/result_fields.hpp"

#include "artifacts/vocabulary.hpp"
#include "host/integer.hpp"
#include "host/json.hpp"
#include "host/text.hpp"
#include "siblings/distribution/artifact_rotation.hpp"

namespace tidalcrest::sync {
namespace {

std::int64_t number_or_zero(const Document& object, const char* key) {
  return try_int(member_or_null(object, key)).value_or(0);
}

}  // namespace

void _apply_manifest_counts(SyncResult& result, const Manifest& manifest) {
  result.pnl_column_count = try_int(manifest.pnl_column_count()).value_or(0);
  result.n_features = 0;
  for (const auto& [path, file_info] : manifest.entries()) {
    if (artifact_rotation::manifest_file_kind(file_info) == "feature") ++result.n_features;
  }
}

void _apply_vocabulary_metadata(SyncResult& result, const Vocabularies& vocabularies) {
  if (!text::truthy(vocabularies)) return;
  const Document metadata = _first_vocabulary_metadata(vocabularies);
  result.t_signal_is = number_or_zero(metadata, "t_signal_is");
  result.t_strategy_is = number_or_zero(metadata, "t_strategy_is");
  result.n_instruments = number_or_zero(metadata, "n_instruments");
}

}  // namespace tidalcrest::sync
