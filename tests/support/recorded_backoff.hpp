#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "siblings/distribution/sync_backoff.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync::testing {

/// A backoff module that spends no time: records each wait, and keeps one context per thread as the real one
/// does. Stands in the module's place for its own lifetime. Thread-safe.
class RecordedBackoff {
 public:
  struct Wait {
    std::string surface;
    std::int64_t attempt = 0;  // one-based
    std::string reason;
    friend bool operator==(const Wait&, const Wait&) = default;
    friend std::ostream& operator<<(std::ostream& out, const Wait& wait) {
      return out << wait.surface << " " << wait.attempt << " " << wait.reason;
    }
  };

  RecordedBackoff() { sync_backoff::module_seam().install(_module); }
  ~RecordedBackoff() { sync_backoff::module_seam().install(nullptr); }

  std::vector<Wait> waits() const {
    const std::lock_guard lock(_module->mutex);
    return _module->waits;
  }
  /// Called in every wait, on the waiting thread, before the stop signal is looked at. Set it before the
  /// first wait.
  void on_wait(std::function<void(const std::function<bool()>& stop_requested)> hook) {
    _module->hook = std::move(hook);
  }
  /// What a wait that was cut short throws, in place of `SyncBackoffCancelled`.
  void on_cancel(std::function<void()> raise) { _module->raise = std::move(raise); }

 private:
  class Module : public sync_backoff::Module {
   public:
    double delay_seconds(std::int64_t attempt_index) override {
      return static_cast<double>(attempt_index + 1);
    }
    bool sleep(double, const std::function<void(double)>&,
               const std::function<bool()>& stop_requested) override {
      if (hook) hook(stop_requested);
      return !stop_requested();
    }
    [[noreturn]] void raise_cancelled() override {
      if (raise) raise();
      throw SyncBackoffCancelled("cancelled");
    }
    Document sync_backoff_event_fields(const std::string& surface, std::int64_t attempt, double wait_seconds,
                                       const std::string& reason, const std::string& file_path) override {
      const std::lock_guard lock(mutex);
      waits.push_back({surface, attempt, reason});
      return {{"event_type", "sync_backoff_wait"}, {"surface", surface}, {"attempt", attempt},
              {"wait_seconds", wait_seconds},      {"reason", reason},   {"file_path", file_path}};
    }
    BackoffContext current_context() override { return context(); }
    std::shared_ptr<void> enter_context(BackoffContext entered) override {
      auto previous = std::make_shared<BackoffContext>(std::exchange(context(), std::move(entered)));
      return {nullptr, [previous](void*) { context() = std::move(*previous); }};
    }
    static BackoffContext& context() {
      thread_local BackoffContext current;
      return current;
    }

    mutable std::mutex mutex;  // guards `waits`
    std::vector<Wait> waits;
    std::function<void(const std::function<bool()>&)> hook;
    std::function<void()> raise;
  };

  const std::shared_ptr<Module> _module = std::make_shared<Module>();
};

}  // namespace tidalcrest::sync::testing
