#pragma once

#include <memory>
#include <string>
#include <utility>

#include "tidalcrest/sync/progress.hpp"

namespace tidalcrest::sync {

/// Hands on what a sync tells of itself, and drops what the listener throws: a display must not fail a sync.
class GuardedProgress : public SyncProgress {
 public:
  /// `listener` null: nobody listens.
  explicit GuardedProgress(std::shared_ptr<SyncProgress> listener) : _listener(std::move(listener)) {}

  void on_phase(const std::string& phase) override {
    tell([&](SyncProgress& listener) { listener.on_phase(phase); });
  }
  void on_download_set(std::int64_t files, std::int64_t bytes) override {
    tell([&](SyncProgress& listener) { listener.on_download_set(files, bytes); });
  }
  void on_bytes(std::int64_t count) override {
    tell([&](SyncProgress& listener) { listener.on_bytes(count); });
  }
  void on_file_done(const std::string& file_path) override {
    tell([&](SyncProgress& listener) { listener.on_file_done(file_path); });
  }

 private:
  template <class Call>
  void tell(Call call) const noexcept {
    if (!_listener) return;
    try {
      call(*_listener);
    } catch (...) {
    }
  }

  const std::shared_ptr<SyncProgress> _listener;
};

}  // namespace tidalcrest::sync
