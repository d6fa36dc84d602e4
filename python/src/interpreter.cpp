#include "interpreter.hpp"

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <utility>
#include <vector>

#include "core/registry.hpp"
#include "host/event.hpp"
#include "object_ref.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync::python {
namespace {

using namespace std::chrono_literals;

// A stop may wait for a running transition (10 s) and for the poll thread; who still runs then is left
// behind.
constexpr std::chrono::duration<double> STOP_PATIENCE = 15s;
constexpr std::chrono::duration<double> CALLBACK_PATIENCE = 3s;

struct StopAtExit {
  std::weak_ptr<void> owner;
  std::function<void()> stop;
};

std::atomic<bool> is_stopping{false};
std::atomic<bool> is_closed{false};
std::atomic<unsigned> forks{0};      // between the process that loaded the module and this one
std::atomic<int> threads_inside{0};  // callbacks of other threads that hold the GIL or wait for it
std::atomic<std::thread::id> exit_thread{};
thread_local int depth_inside = 0;

// Guarded by the GIL. Never destroyed: a thread may outlive the static objects.
std::vector<StopAtExit>& to_stop() {
  static auto* const entries = new std::vector<StopAtExit>;
  return *entries;
}

bool is_exit_thread() noexcept { return exit_thread.load() == std::this_thread::get_id(); }

void stop_all(const std::vector<StopAtExit>& entries) {
  for (const auto& entry : entries) {
    try {
      if (const auto alive = entry.owner.lock()) entry.stop();
    } catch (const std::exception&) {
      // The process ends; the others are stopped all the same.
    }
  }
}

// Destroying it would touch what belongs to the parent.
template <class Value>
void left_behind(Value value) {
  new Value(std::move(value));
}

// On a thread of its own, so that one that does not come to an end does not keep the process.
void stop_all_with_patience() {
  const auto done = std::make_shared<Event>();
  std::thread([entries = std::exchange(to_stop(), {}), done] {
    stop_all(entries);
    done->set();
  }).detach();
  const Unlocked unlocked;
  done->wait_for(STOP_PATIENCE);
}

void wait_for_threads_inside() {
  const Unlocked unlocked;
  const auto deadline = std::chrono::steady_clock::now() + CALLBACK_PATIENCE;
  while (threads_inside.load() > 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(1ms);
  }
}

}  // namespace

Locked::Locked() {
  ++threads_inside;
  if (is_closed && depth_inside == 0 && !is_exit_thread()) {
    --threads_inside;
    throw RuntimeError("the Python interpreter is shutting down");
  }
  ++depth_inside;
  _state = PyGILState_Ensure();
  drop_released_objects();
}

Locked::~Locked() {
  drop_released_objects();
  PyGILState_Release(_state);
  --depth_inside;
  --threads_inside;
}

Unlocked::~Unlocked() {
  while (is_stopping && depth_inside == 0 && !is_exit_thread()) ::pause();
  PyEval_RestoreThread(_thread);
  drop_released_objects();
}

bool stopping() noexcept { return is_stopping; }

MadeHere::MadeHere() noexcept : _forks(forks) {}

bool MadeHere::is_here() const noexcept { return _forks == forks; }

void stop_at_exit(std::weak_ptr<void> owner, std::function<void()> stop) {
  auto& entries = to_stop();
  std::erase_if(entries, [](const StopAtExit& entry) { return entry.owner.expired(); });
  entries.push_back({std::move(owner), std::move(stop)});
}

void shut_down() {
  exit_thread = std::this_thread::get_id();
  is_stopping = true;
  if (!to_stop().empty()) stop_all_with_patience();
  is_closed = true;
  wait_for_threads_inside();
}

void after_fork_in_child() noexcept {
  ++forks;
  threads_inside = depth_inside;
  left_behind(std::exchange(to_stop(), {}));
  auto& registry = Registry::of_this_process();
  if (!registry._class_lock.try_lock()) return;  // another thread of the parent was at work on it
  left_behind(std::exchange(registry._instances, {}));
  registry._class_lock.unlock();
}

}  // namespace tidalcrest::sync::python
