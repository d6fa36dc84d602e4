#include "host/parallel.hpp"

#include <algorithm>
#include <exception>
#include <system_error>
#include <thread>
#include <vector>

#include "host/mutex.hpp"
#include "host/threads.hpp"

namespace tidalcrest::sync {
namespace {

// What the workers of one call share.
struct Run {
  const std::size_t count;
  const std::function<void(std::size_t)>& work;
  Mutex mutex;
  std::size_t next GUARDED_BY(mutex) = 0;
  std::size_t failed_index GUARDED_BY(mutex);
  std::exception_ptr failure GUARDED_BY(mutex);

  bool take(std::size_t& index) {
    const MutexLock lock(mutex);
    if (next >= failed_index) return false;
    index = next++;
    return true;
  }

  void record_failure(std::size_t index) {
    const MutexLock lock(mutex);
    if (index >= failed_index) return;
    failed_index = index;
    failure = std::current_exception();
  }

  void rethrow_failure() {
    const MutexLock lock(mutex);
    if (failure) std::rethrow_exception(failure);
  }

  void work_through() {
    for (std::size_t index = 0; take(index);) {
      try {
        work(index);
      } catch (...) {
        record_failure(index);
      }
    }
  }
};

}  // namespace

void parallel_in_order(std::size_t count, std::size_t workers, const std::function<void(std::size_t)>& work) {
  Run run{.count = count, .work = work, .mutex = {}, .failed_index = count, .failure = nullptr};
  std::vector<std::jthread> helpers;
  const std::size_t extra = std::min(workers, count) > 0 ? std::min(workers, count) - 1 : 0;
  try {
    for (std::size_t i = 0; i < extra; ++i) {
      helpers.emplace_back([&run] {
        set_thread_name("tc-sync-proof");
        run.work_through();
      });
    }
  } catch (const std::system_error&) {
    // No thread to be had: those that started, and the caller's, do all of it.
  }
  run.work_through();
  helpers.clear();  // joins
  run.rethrow_failure();
}

}  // namespace tidalcrest::sync
