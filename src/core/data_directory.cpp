#include "tidalcrest/sync/data_directory.hpp"

#include <utility>

#include "artifacts/shuffle_seed.hpp"
#include "cohort/collector.hpp"
#include "core/construction.hpp"
#include "core/directory_status.hpp"
#include "core/selected_cohort.hpp"
#include "era/old_era_cleanup.hpp"
#include "host/local_path.hpp"
#include "integrity/verify.hpp"
#include "siblings/distribution/lock.hpp"

namespace tidalcrest::sync {

DataDirectory::DataDirectory(std::string path) : _path(std::move(path)) { check_data_dir(_path); }

VerifiedActiveCohortSnapshot DataDirectory::active_cohort_snapshot() const {
  const auto selection = selected_cohort(_path, /*required=*/true);
  return {absolute_path(selection->base_dir), absolute_path(selection->root_dir), *selection->manifest_bytes};
}

bool DataDirectory::is_busy() const { return distribution_lock_is_busy(_path); }

Document DataDirectory::status() const { return directory_status(_path); }

VerifyResult DataDirectory::verify(
    const std::function<std::optional<std::string>()>& get_wallet_secret) const {
  selected_cohort(_path, /*required=*/true);
  return verify_selected_cohort(_path, [&] { return supplied_wallet_secret(get_wallet_secret); });
}

CollectionReport DataDirectory::collect_generations(std::int64_t keep, bool dry_run) const {
  SyncLock lock(_path);
  return Collector(_path, lock, Seams::real()).collect_generations(keep, dry_run);
}

std::int64_t DataDirectory::cleanup_old_eras() const {
  const auto selection = selected_cohort(_path, /*required=*/true);
  const ActiveViewHolder view(std::make_shared<const ActiveView>(
      ActiveView{selection, selection->root_dir, nullptr,
                 std::make_shared<const Manifest>(selection->manifest), nullptr}));
  return OldEraCleanup(_path, view).cleanup_old_eras(/*keep_current=*/true);
}

}  // namespace tidalcrest::sync
