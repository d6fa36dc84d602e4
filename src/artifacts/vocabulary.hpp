#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cohort/active_view.hpp"
#include "tidalcrest/sync/manifest.hpp"

namespace tidalcrest::sync {

std::vector<std::string> _iter_vocabulary_entry_names(const Document& value);
/// The normalised universe; `SyncError` when nothing is left of it or it is no single safe path segment.
std::string _validate_named_universe(const Document& named_universe);
/// Absent for every path that is no vocabulary path; `SyncError` for a vocabulary path with an unsafe
/// universe.
std::optional<std::string> _vocabulary_named_universe_from_path(std::string_view file_path);
/// Sorted. Every other key of the manifest costs two comparisons of text.
std::vector<std::string> _vocabulary_manifest_paths(const Manifest& manifest);
/// The same, but at least one: `SyncError` for a manifest without a vocabulary.
std::vector<std::string> _require_vocabulary_manifest_paths(const Manifest& manifest);
/// Proves one document and gives a copy of it. Absent universe: the document's own. `EraError` for the wrong
/// era, `SyncError` for everything else.
Document _validate_vocabulary_data(const Document& vocabulary, std::int64_t expected_era_number,
                                   const std::optional<std::string>& named_universe = {});
Document _validate_vocabulary_bytes(std::string_view data, std::int64_t expected_era_number,
                                    const std::optional<std::string>& named_universe = {});
/// The whole proof of a root's vocabularies and functions file. Gives the merged vocabularies in path order.
/// `SyncError`, `EraError`, `IntegrityError`, and the `ValueError` of a merge that does not fit.
Vocabularies _validate_manifest_vocabulary_files(const std::string& data_dir, const Manifest& manifest);
/// The metadata of the first vocabulary that has one, else an empty object.
Document _first_vocabulary_metadata(const Vocabularies& vocabularies);

}  // namespace tidalcrest::sync
