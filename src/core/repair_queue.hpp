#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "cohort/active_view.hpp"
#include "core/manager_state.hpp"
#include "host/mutex.hpp"

namespace tidalcrest::sync {

/// Files that someone found damaged and that wait for their repair, by a thread of their own or by the next
/// poll.
/// `_repair_lock` is a leaf: it is held while copying or appending, never during a repair. Paths whose repair
/// failed are not put back; the next full proof of the local files finds what is still damaged.
class RepairQueue {
 public:
  using RepairFunction = std::function<void(const std::vector<std::string>& corrupted_files)>;

  RepairQueue(std::string data_dir, const ManagerState& state, const ActiveViewHolder& active,
              RepairFunction repair)
      : _data_dir(std::move(data_dir)), _state(state), _active(active), _repair(std::move(repair)) {}

  /// Queues one path and starts a thread for the queue, which shares ownership of it. Throws `StateError`
  /// when no poll thread runs and `ValueError` for a path that the manifest does not hold.
  static void report_corruption(const std::shared_ptr<RepairQueue>& queue, const std::string& file_path);

  /// Repairs what is queued. What `repair` throws passes through.
  void _repair_queued_files();
  /// Process repair queue in background: the same, with a failure logged.
  void _process_repair_queue();

 private:
  void _append(const std::string& file_path);
  std::vector<std::string> _take_all();

  const std::string _data_dir;
  const ManagerState& _state;
  const ActiveViewHolder& _active;
  const RepairFunction _repair;
  Mutex _repair_lock;
  std::vector<std::string> _repair_queue GUARDED_BY(_repair_lock);
};

}  // namespace tidalcrest::sync
