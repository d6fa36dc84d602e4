#include "cohort/collector.hpp"

#include <optional>

#include "host/log.hpp"
#include "host/text.hpp"
#include "siblings/distribution/cohort_roots.hpp"
#include "siblings/distribution/contained_files.hpp"
#include "siblings/distribution/local_cohort.hpp"
#include "siblings/distribution/lock.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

using local_cohort::CohortRoot;
using local_cohort::CohortRootKind;

constexpr double LEFTOVER_LIFETIME_SECONDS = 24 * 60 * 60;

// Writers stay out while roots are judged; while they are removed, so do those that read a selection. A
// caller's own pin is no hindrance to a question.
struct Locks {
  Locks(const std::string& data_dir, SyncLock& lock, bool dry_run) {
    if (dry_run) {
      shared.emplace(acquire_distribution_lock(data_dir, /*exclusive=*/false));
    } else {
      writer.emplace(lock);
    }
  }
  std::optional<WriterScope> writer;
  std::optional<DistributionLock> shared;
};

// Decides about one root after the other, newest first.
class Judgement {
 public:
  Judgement(const std::string& data_dir, std::int64_t keep, double now_seconds)
      : _keep(keep), _now_seconds(now_seconds) {
    if (const auto selector = local_cohort::read_selector_bytes(data_dir)) {
      _selected_relative_path = local_cohort::generation_relative_root(*selector);
    }
  }

  /// Why the root goes; absent when it stays.
  std::optional<std::string> reason_to_remove(const CohortRoot& root, std::int64_t newest_ns) {
    switch (root.kind) {
      case CohortRootKind::repair:
        return "abandoned repair";  // a live one would hold the lock that keeps writers out here
      case CohortRootKind::removed:
        return "unfinished removal";
      case CohortRootKind::leftover:
        return is_old(newest_ns) ? std::optional<std::string>("failed staging") : std::nullopt;
      case CohortRootKind::complete:
        if (_complete_seen++ < _keep || is_in_use(root)) return std::nullopt;
        return "old generation";
      case CohortRootKind::incomplete:
        if (!is_old(newest_ns) || is_in_use(root)) return std::nullopt;
        return "failed staging";
    }
    return std::nullopt;
  }

 private:
  bool is_in_use(const CohortRoot& root) const {
    return root.relative_path == _selected_relative_path || local_cohort::is_pinned(root);
  }
  bool is_old(std::int64_t newest_ns) const {
    return _now_seconds - static_cast<double>(newest_ns) / 1e9 > LEFTOVER_LIFETIME_SECONDS;
  }

  const std::int64_t _keep;
  const double _now_seconds;
  std::string _selected_relative_path;
  std::int64_t _complete_seen = 0;
};

void remove_root(const std::string& data_dir, const CohortRoot& root, const Seams& seams) {
  std::string relative_path = root.relative_path;
  if (root.kind != CohortRootKind::removed) {
    const std::string name =
        local_cohort::REMOVED_ROOT_PREFIX + text::hex(seams.random_bytes(local_cohort::ROOT_TOKEN_BYTES));
    local_cohort::rename_cohort_root(data_dir, root.name, name);
    relative_path = std::string(local_cohort::COHORTS_DIRECTORY) + "/" + name;
  }
  client_manifest::remove_contained_directory_tree(data_dir, relative_path, /*missing_ok=*/true);
}

}  // namespace

CollectionReport Collector::collect_generations(std::int64_t keep, bool dry_run) const {
  if (keep < 0) throw ValueError("keep must not be negative, got " + std::to_string(keep));
  const Locks locks(_data_dir, _lock, dry_run);
  Judgement judgement(_data_dir, keep, _seams.wall_seconds());
  CollectionReport report;
  for (const auto& root : local_cohort::list_cohort_roots(_data_dir)) {
    const auto measure = local_cohort::measure_tree(root.path);
    const auto reason = judgement.reason_to_remove(root, measure.newest_ns);
    if (!reason) {
      report.kept.push_back(root.relative_path);
      continue;
    }
    if (!dry_run) remove_root(_data_dir, root, _seams);
    report.bytes_freed += measure.bytes;
    report.removed.push_back({root.relative_path, *reason, measure.bytes});
    log::info("%s %s: %s, %d bytes", dry_run ? "Would remove" : "Removed", root.relative_path, *reason,
              measure.bytes);
  }
  return report;
}

}  // namespace tidalcrest::sync
