#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <exception>
#include <functional>
#include <optional>
#include <thread>
#include <vector>

#include "host/mutex.hpp"
#include "tidalcrest/sync/records.hpp"

namespace tidalcrest::sync {

/// A bounded set of named worker threads that run one task per index, started in order, and hand the ends of
/// the tasks to the caller as they come. The destructor cancels what has not started and joins every worker,
/// so what the tasks refer to need only outlive the pool. Where no thread can be started, the tasks run in
/// `next_end`.
class DownloadPool {
 public:
  using Task = std::function<SyncResult(std::size_t index)>;
  using Deadline = std::optional<std::chrono::steady_clock::time_point>;

  /// How one task ended: with its own record, or with an exception of any type.
  struct End {
    std::size_t index = 0;
    SyncResult result;
    std::exception_ptr failure;
  };

  DownloadPool(std::size_t tasks, std::size_t workers, Task task);
  DownloadPool(const DownloadPool&) = delete;
  DownloadPool& operator=(const DownloadPool&) = delete;
  ~DownloadPool();

  /// Waits for the next task to end. Absent when all ends were handed out, or when the deadline has passed.
  /// A failure and the last end are handed on at once, other ends perhaps some at a time.
  std::optional<End> next_end(const Deadline& deadline = {});
  /// Starts no further task.
  void cancel();
  /// The tasks whose end was not handed out yet, in order.
  std::vector<std::size_t> pending() const;

 private:
  bool _run_next();
  std::optional<std::size_t> _take();
  void _put(End end) noexcept;

  const std::size_t _tasks;
  const Task _task;
  mutable Mutex _mutex;  // never held while a task runs
  std::condition_variable _ended;
  std::size_t _next GUARDED_BY(_mutex) = 0;
  std::size_t _handed_out GUARDED_BY(_mutex) = 0;
  std::vector<bool> _is_handed_out GUARDED_BY(_mutex);
  std::vector<End> _ends GUARDED_BY(_mutex);  // has room for all: a worker must not fail with its end in hand
  std::size_t _next_end GUARDED_BY(_mutex) = 0;
  bool _cancelled GUARDED_BY(_mutex) = false;
  std::vector<std::thread> _workers;
};

}  // namespace tidalcrest::sync
