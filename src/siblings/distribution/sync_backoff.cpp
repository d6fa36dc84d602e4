#include "siblings/distribution/sync_backoff.hpp"

#include <algorithm>
#include <cmath>
#include <random>

#include "host/never_destroyed.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace sync_backoff {
namespace {

constexpr double FIRST_DELAY_SECONDS = 0.5;
constexpr double LONGEST_DELAY_SECONDS = 60.0;
constexpr double STOP_CHECK_SECONDS = 0.1;  // how long a stop may go unnoticed

thread_local BackoffContext thread_context;

class EnteredContext {
 public:
  explicit EnteredContext(BackoffContext context)
      : _previous(std::exchange(thread_context, std::move(context))) {}
  EnteredContext(const EnteredContext&) = delete;
  EnteredContext& operator=(const EnteredContext&) = delete;
  ~EnteredContext() { thread_context = std::move(_previous); }

 private:
  BackoffContext _previous;
};

// Evenly from [0.5, 1.0]: a fleet that lost its server together does not come back together.
double spread() {
  thread_local std::mt19937_64 generator{std::random_device{}()};
  return std::uniform_real_distribution(0.5, 1.0)(generator);
}

class BuiltIn final : public Module {
 public:
  double delay_seconds(std::int64_t attempt_index) override {
    const auto doublings = static_cast<int>(std::clamp<std::int64_t>(attempt_index, 0, 64));
    return std::min(LONGEST_DELAY_SECONDS, std::ldexp(FIRST_DELAY_SECONDS, doublings)) * spread();
  }

  bool sleep(double wait_seconds, const std::function<void(double)>& sleep,
             const std::function<bool()>& stop_requested) override {
    double remaining = wait_seconds;
    while (true) {
      if (stop_requested()) return false;
      if (!(remaining > 1e-9)) return true;
      const double slice = std::min(remaining, STOP_CHECK_SECONDS);
      sleep(slice);
      remaining -= slice;
    }
  }

  void raise_cancelled() override {
    throw SyncBackoffCancelled("a stop was requested during a backoff wait");
  }

  Document sync_backoff_event_fields(const std::string& surface, std::int64_t attempt, double wait_seconds,
                                     const std::string& reason, const std::string& file_path) override {
    return {
        {"event_type", "sync_backoff_wait"}, {"surface", surface}, {"attempt", attempt},
        {"wait_seconds", wait_seconds},      {"reason", reason},   {"file_path", file_path},
    };
  }

  BackoffContext current_context() override { return thread_context; }

  std::shared_ptr<void> enter_context(BackoffContext context) override {
    return std::make_shared<EnteredContext>(std::move(context));
  }
};

}  // namespace

ModuleSeam<Module>& module_seam() {
  static auto& seam = never_destroyed<ModuleSeam<Module>>(std::make_shared<BuiltIn>());
  return seam;
}

BackoffContext context_of_this_thread() {
  try {
    return module_seam().current()->current_context();
  } catch (const std::exception&) {
    return {};
  }
}

bool is_stop_requested(const BackoffContext& context) {
  if (!context.stop_requested) return false;
  try {
    return context.stop_requested();
  } catch (const std::exception&) {
    return false;
  }
}

void cancel(Module& module) {
  module.raise_cancelled();
  // Going on would repeat without a wait.
  throw SyncBackoffCancelled("a stop was requested");
}

StopCheck stop_check_of_this_thread() {
  return [module = module_seam().current(), context = context_of_this_thread()] {
    if (is_stop_requested(context)) cancel(*module);
  };
}

}  // namespace sync_backoff

ScopedBackoffContext::ScopedBackoffContext(BackoffContext context)
    : _entered(sync_backoff::module_seam().current()->enter_context(std::move(context))) {}

ScopedBackoffContext::~ScopedBackoffContext() = default;

}  // namespace tidalcrest::sync
