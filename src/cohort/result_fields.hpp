#pragma once

#include "cohort/active_view.hpp"
#include "tidalcrest/sync/manifest.hpp"
#include "tidalcrest/sync/records.hpp"

namespace tidalcrest::sync {

/// `pnl_column_count`, and the number of entries of kind "feature", selected or not.
void _apply_manifest_counts(SyncResult& result, const Manifest& manifest);

/// `t_signal_is`, `t_strategy_is` and `n_instruments` of the first vocabulary's metadata; nothing without
/// one.
void _apply_vocabulary_metadata(SyncResult& result, const Vocabularies& vocabularies);

}  // namespace tidalcrest::sync
