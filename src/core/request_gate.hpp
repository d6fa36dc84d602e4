#pragma once

#include <functional>
#include <string>

namespace tidalcrest::sync {

/// Name of the marker file in the data directory that a transition keeps while it runs, in whatever process.
inline constexpr const char* TRANSITION_LOCK_FILENAME = ".transition_lock";

/// Whether a worker's request may go on now.
class RequestGate {
 public:
  RequestGate(std::string data_dir, std::function<bool()> in_transition, std::function<bool()> running)
      : _data_dir(std::move(data_dir)),
        _in_transition(std::move(in_transition)),
        _running(std::move(running)) {}

  /// `StateError` while an era transition runs, here or (by the marker file) in another process, and while no
  /// sync thread runs.
  void require_open(const std::string& operation) const;

 private:
  const std::string _data_dir;
  const std::function<bool()> _in_transition;
  const std::function<bool()> _running;
};

}  // namespace tidalcrest::sync
