#include "download/download_pool.hpp"

#include <utility>

#include "host/threads.hpp"

namespace tidalcrest::sync {
namespace {

// The caller only adds up what went well: woken for every small file, it would take the processor from the
// workers as often as they end one.
constexpr std::size_t ENDS_PER_WAKING = 64;

}  // namespace

DownloadPool::DownloadPool(std::size_t tasks, std::size_t workers, Task task)
    : _tasks(tasks), _task(std::move(task)), _is_handed_out(tasks, false) {
  _ends.reserve(tasks);
  _workers.reserve(workers);
  try {
    while (_workers.size() < workers) {
      _workers.emplace_back([this] {
        set_thread_name("tc-sync");
        while (_run_next()) continue;
      });
    }
  } catch (...) {
    // The machine has nothing for one more thread: fewer workers bring the same files.
  }
}

DownloadPool::~DownloadPool() {
  cancel();
  for (auto& worker : _workers) worker.join();
}

std::optional<DownloadPool::End> DownloadPool::next_end(const Deadline& deadline) {
  if (_workers.empty()) _run_next();
  MutexLock lock(_mutex);
  if (_handed_out == _tasks) return std::nullopt;
  while (_next_end == _ends.size()) {
    if (!deadline) {
      lock.wait(_ended);
    } else if (!lock.wait_until(_ended, *deadline) && _next_end == _ends.size()) {
      return std::nullopt;
    }
  }
  End end = std::move(_ends[_next_end++]);
  if (_next_end == _ends.size()) {
    _ends.clear();
    _next_end = 0;
  }
  _is_handed_out[end.index] = true;
  ++_handed_out;
  return end;
}

void DownloadPool::cancel() {
  const MutexLock lock(_mutex);
  _cancelled = true;
}

std::vector<std::size_t> DownloadPool::pending() const {
  const MutexLock lock(_mutex);
  std::vector<std::size_t> indices;
  for (std::size_t index = 0; index < _tasks; ++index) {
    if (!_is_handed_out[index]) indices.push_back(index);
  }
  return indices;
}

bool DownloadPool::_run_next() {
  const auto index = _take();
  if (!index) return false;
  End end{.index = *index, .result = {}, .failure = nullptr};
  try {
    end.result = _task(*index);
  } catch (...) {
    end.failure = std::current_exception();
  }
  _put(std::move(end));
  return true;
}

std::optional<std::size_t> DownloadPool::_take() {
  const MutexLock lock(_mutex);
  if (_cancelled || _next == _tasks) return std::nullopt;
  return _next++;
}

void DownloadPool::_put(End end) noexcept {
  bool worth_waking = end.failure != nullptr;
  {
    const MutexLock lock(_mutex);
    _ends.push_back(std::move(end));
    const std::size_t waiting = _ends.size() - _next_end;
    const bool is_last = _handed_out + waiting == _tasks;
    worth_waking = worth_waking || is_last || waiting % ENDS_PER_WAKING == 0;
  }
  if (worth_waking) _ended.notify_one();
}

}  // namespace tidalcrest::sync
