#pragma once

#include <functional>
#include <string>

#include "artifacts/shuffle_seed.hpp"
#include "cohort/active_view.hpp"
#include "tidalcrest/sync/records.hpp"

namespace tidalcrest::sync {

/// Measures every member of the selected cohort, and authenticates its seed pair, under the shared
/// distribution lock and a pin. A bad selector is a report and no exception; what `wallet_secret` throws
/// passes through, and so does `SyncBackoffCancelled` when the calling thread is asked to stop.
VerifyResult verify_selected_cohort(const std::string& data_dir,
                                    const std::function<WalletSecret()>& wallet_secret);

/// Tells whether the active cohort on disk is what was published, and changes nothing. A reader of other
/// processes' kind: it takes the shared distribution lock and a pin, not the sync lock.
class Verify {
 public:
  Verify(std::string data_dir, const ShuffleSeed& shuffle_seed, const ActiveViewHolder& active)
      : _data_dir(std::move(data_dir)), _shuffle_seed(shuffle_seed), _active(active) {}

  /// Verify one descriptor-pinned active cohort and operational seed pair. A manager without a manifest
  /// reports valid, having nothing to compare. A bad selector is a report and no exception; a missing or
  /// unusable wallet secret is a `SyncError`.
  VerifyResult verify() const;

 private:
  const std::string _data_dir;
  const ShuffleSeed& _shuffle_seed;
  const ActiveViewHolder& _active;
};

}  // namespace tidalcrest::sync
