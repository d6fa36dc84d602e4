#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "host/background_thread.hpp"
#include "host/event.hpp"
#include "host/mutex.hpp"
#include "tidalcrest/sync/constants.hpp"
#include "tidalcrest/sync/era_thread.hpp"
#include "transport/http_types.hpp"

namespace tidalcrest::sync {

/// What a monitor needs of the manager whose market it watches.
struct EraTarget {
  std::string data_dir;
  /// The era number of the manager's manifest as it stands; absent without a manifest.
  std::function<std::optional<Document>()> manifest_era_number;
  std::function<HttpResult(const std::string& url, const std::string& token)> http_get;
  std::function<void(const Document& new_era_number, const std::function<void()>& kill_searches_fn,
                     const std::function<void()>& restart_searches_fn)>
      trigger_era_transition;
};

/// Follows the market's era on a thread of its own, and decides when a transition must run. Changes no data
/// itself.
///
/// The target is not owned: the thread holds it for the length of one poll, and ends when it is gone.
/// Transitions run on the thread, so polling pauses for as long as one takes.
class EraMonitor {
 public:
  struct Options {
    std::string server_url;
    std::function<std::string()> get_token;
    std::weak_ptr<const EraTarget> target;
    double poll_interval = ERA_POLL_INTERVAL_SECONDS;
    std::function<void()> kill_searches_fn = {};
    std::function<void()> restart_searches_fn = {};
    Document market_id = DEFAULT_AGENT_MARKET_ID;
    std::chrono::duration<double> stop_patience = std::chrono::seconds(10);  ///< how long `stop` waits
  };
  /// `ValueError` for an address that may not carry the token and for a market id that is no positive
  /// integer.
  explicit EraMonitor(Options options);
  /// As `stop`.
  ~EraMonitor();

  void start();
  void stop();
  bool is_alive() const;
  EraMemory memory() const;
  /// One poll on the calling thread; false when the target is gone. Never throws an ordinary failure.
  bool _poll_once();

 private:
  class Watch;  // what the thread works on; it does not own the thread

  const std::chrono::duration<double> _stop_patience;
  const std::shared_ptr<Watch> _watch;
  mutable Mutex _mutex;  // never held while waiting for the thread
  bool _started GUARDED_BY(_mutex) = false;
  std::shared_ptr<Event> _stop_event GUARDED_BY(_mutex);
  std::shared_ptr<BackgroundThread> _thread GUARDED_BY(_mutex);  // null before the first start
};

}  // namespace tidalcrest::sync
