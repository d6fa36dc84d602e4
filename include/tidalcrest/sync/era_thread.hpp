#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "tidalcrest/sync/constants.hpp"
#include "tidalcrest/sync/document.hpp"

namespace tidalcrest::sync {

class EraMonitor;  // internal
class SyncManager;

/// What a monitor remembers between polls.
struct EraMemory {
  /// The era that the last completed transition to a new era reached, or the manifest's at the start; null
  /// before.
  Document last_known_era_number = nullptr;
  std::optional<std::string> last_known_state = {};  ///< reserved, never set
  bool in_closing = false;         ///< a closing has been acted on and no new era has arrived yet
  bool transition_failed = false;  ///< the latest transition attempt failed
  /// "closing: {text}" or "new era: {text}" of that attempt
  std::optional<std::string> last_transition_error = {};
};

/// Monitors the era of a manager's market on a background thread, and runs a transition on it when an era
/// closes or another one opens. A manager with consumers runs one by itself; create one to watch beside
/// `SyncManager::start`.
///
/// The manager is not owned: once it is gone, the thread ends at its next poll. Every operation is
/// thread-safe, and may be called from the thread's own callbacks.
class EraThread {
 public:
  /// `get_token` is asked on every poll. `kill_searches_fn` and `restart_searches_fn` are handed to the
  /// transition; the thread itself calls only the latter, when a closing is cancelled. Throws `ValueError`
  /// for an address that may not carry the token and for a market id that is no positive integer.
  EraThread(std::string server_url, std::function<std::string()> get_token, SyncManager& sync_manager,
            double era_poll_interval_s = ERA_POLL_INTERVAL_SECONDS,
            std::function<void()> kill_searches_fn = {}, std::function<void()> restart_searches_fn = {},
            const Document& market_id = DEFAULT_AGENT_MARKET_ID);
  /// As `stop`.
  ~EraThread();
  EraThread(const EraThread&) = delete;
  EraThread& operator=(const EraThread&) = delete;

  /// Polls at once, then every `era_poll_interval_s` seconds. `StateError` when it is started already.
  void start();
  /// Waits up to 10 seconds for the thread; one that is in the middle of a transition ends by itself later.
  /// No effect when it is not started.
  void stop();
  bool is_alive() const;
  /// For inspection: a copy of what the thread knows at this moment.
  EraMemory memory() const;

 private:
  const std::unique_ptr<EraMonitor> _monitor;
};

}  // namespace tidalcrest::sync
