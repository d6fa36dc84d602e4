#pragma once

#include <cstdint>
#include <string>

namespace tidalcrest::sync {

/// Told how a running sync gets on, for a display. Called on download workers, several at once, and under the
/// locks of the sync: it must not wait for the manager. What it throws is dropped. Every default is empty.
class SyncProgress {
 public:
  virtual ~SyncProgress() = default;
  /// A step of the sync begins: "checking", "planning", "comparing", "downloading", "validating", "proving",
  /// "publishing".
  virtual void on_phase(const std::string& phase) { static_cast<void>(phase); }
  /// The download set of one attempt. `bytes` counts the declared sizes.
  virtual void on_download_set(std::int64_t files, std::int64_t bytes) {
    static_cast<void>(files);
    static_cast<void>(bytes);
  }
  /// `count` more bytes of a member are in its staging file; negative when staged bytes were dropped.
  virtual void on_bytes(std::int64_t count) { static_cast<void>(count); }
  virtual void on_file_done(const std::string& file_path) { static_cast<void>(file_path); }
};

}  // namespace tidalcrest::sync
