#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace tidalcrest::sync {

/// What a thread tells the waits that happen on it. Every member is optional.
struct BackoffContext {
  std::optional<std::string> surface = {};  ///< names the caller in wait events
  std::optional<std::string> data_dir =
      {};  ///< where `sync-progress.json` lies; no progress of waits without it
  std::function<bool()> stop_requested = {};  ///< true ends waits and transfers early; empty means never
};

/// Sets the calling thread's backoff context for its own lifetime; contexts nest. Destroy it on the thread
/// that made it. A sync that runs under a context whose `stop_requested` turns true ends with
/// `SyncBackoffCancelled`, keeping what it has staged.
class ScopedBackoffContext {
 public:
  explicit ScopedBackoffContext(BackoffContext context);
  ScopedBackoffContext(const ScopedBackoffContext&) = delete;
  ScopedBackoffContext& operator=(const ScopedBackoffContext&) = delete;
  ~ScopedBackoffContext();

 private:
  std::shared_ptr<void> _entered;
};

}  // namespace tidalcrest::sync
