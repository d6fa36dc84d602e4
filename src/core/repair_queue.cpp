#include "core/repair_queue.hpp"

#include <utility>

#include "host/background_thread.hpp"
#include "host/log.hpp"
#include "host/stoppable.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {

void RepairQueue::report_corruption(const std::shared_ptr<RepairQueue>& queue, const std::string& file_path) {
  if (!queue->_state.running()) {
    throw StateError("Sync thread is not running. Call start() or acquire() first.");
  }
  const auto view = queue->_active.get();
  if (view->manifest && !view->manifest->entries().contains(file_path)) {
    throw ValueError("File not in manifest: " + file_path);
  }
  queue->_append(file_path);
  const BackgroundThread repair("tc-repair", [queue, stop = queue->_state.stop_event()] {
    const ScopedBackoffContext context(context_stopped_by(stop, queue->_data_dir));
    queue->_process_repair_queue();
  });
}

void RepairQueue::_repair_queued_files() {
  const std::vector<std::string> files_to_repair = _take_all();
  if (!files_to_repair.empty()) _repair(files_to_repair);
}

void RepairQueue::_process_repair_queue() {
  try {
    _repair_queued_files();
  } catch (const std::exception& failure) {
    log::warning("Background repair failed: %s", failure.what());
  }
}

void RepairQueue::_append(const std::string& file_path) {
  const MutexLock guard(_repair_lock);
  _repair_queue.push_back(file_path);
}

std::vector<std::string> RepairQueue::_take_all() {
  const MutexLock guard(_repair_lock);
  return std::exchange(_repair_queue, {});
}

}  // namespace tidalcrest::sync
