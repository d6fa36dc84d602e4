#pragma once

#include <memory>
#include <string>

#include "host/event.hpp"
#include "tidalcrest/sync/backoff.hpp"

namespace tidalcrest::sync {

/// The backoff context of a thread of the manager's own: its waits for a server, its transfers and its waits
/// for the distribution lock end when `stop` is set, and its waits show in the progress file of `data_dir`.
/// It names no surface: that of the waiting call says more to whoever reads the events.
inline BackoffContext context_stopped_by(std::shared_ptr<const Event> stop, const std::string& data_dir) {
  return {.surface = {}, .data_dir = data_dir, .stop_requested = [stop = std::move(stop)] {
            return stop->is_set();
          }};
}

}  // namespace tidalcrest::sync
