#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "host/module_seam.hpp"
#include "tidalcrest/sync/backoff.hpp"
#include "tidalcrest/sync/document.hpp"

/// The retry schedule, the stop signal and the shape of a backoff event.
namespace tidalcrest::sync::sync_backoff {

/// The module as the sync module reaches it; the host can put its own in its place at run time.
class Module {
 public:
  virtual ~Module() = default;
  /// Delay in seconds for a zero-based attempt index.
  virtual double delay_seconds(std::int64_t attempt_index) = 0;
  /// Sleeps `wait_seconds` through `sleep`; gives false when `stop_requested` cut the wait. Looks at the stop
  /// signal at least every 0.1 s.
  virtual bool sleep(double wait_seconds, const std::function<void(double)>& sleep,
                     const std::function<bool()>& stop_requested) = 0;
  /// Throws the exception that callers let pass: `SyncBackoffCancelled`, or the host's own.
  virtual void raise_cancelled() = 0;
  /// The event map with `event_type` "sync_backoff_wait". `attempt` is one-based.
  virtual Document sync_backoff_event_fields(const std::string& surface, std::int64_t attempt,
                                             double wait_seconds, const std::string& reason,
                                             const std::string& file_path) = 0;
  /// The calling thread's context.
  virtual BackoffContext current_context() = 0;
  /// Sets the calling thread's context until the returned handle is destroyed, on the same thread.
  virtual std::shared_ptr<void> enter_context(BackoffContext context) = 0;
};

ModuleSeam<Module>& module_seam();

/// The calling thread's context; an empty one where the module's own failed.
BackoffContext context_of_this_thread();
/// Whether the context asks to stop. A signal that fails asks for nothing.
bool is_stop_requested(const BackoffContext& context);
/// Throws the module's cancelled exception; a plain `SyncBackoffCancelled` where a host's module only
/// returned.
[[noreturn]] void cancel(Module& module);

/// Ends long local work early: throws the cancelled exception once the thread that made it was asked to stop.
/// May be called on any thread.
using StopCheck = std::function<void()>;
StopCheck stop_check_of_this_thread();

}  // namespace tidalcrest::sync::sync_backoff
