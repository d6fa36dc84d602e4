#pragma once

#include "download/file_downloader.hpp"
#include "origin/scripted_server.hpp"
#include "support/recorded_backoff.hpp"
#include "support/test.hpp"

namespace tidalcrest::sync::testing {

using origin::Reply;

/// A manifest entry that declares these bytes.
inline Document entry_for(const std::string& bytes, const std::string& kind = "feature") {
  return {{"kind", kind}, {"sha256", sha256_hex(bytes)}, {"size_bytes", bytes.size()}};
}

/// Counts what a display is told; an `on_staged` hook sees every change.
class CountingProgress : public SyncProgress {
 public:
  void on_bytes(std::int64_t count) override {
    const std::lock_guard lock(_mutex);
    _staged += count;
    if (on_staged) on_staged(_staged);
  }
  void on_file_done(const std::string& file_path) override {
    const std::lock_guard lock(_mutex);
    _done.push_back(file_path);
  }
  std::int64_t staged() const {
    const std::lock_guard lock(_mutex);
    return _staged;
  }
  std::vector<std::string> done() const {
    const std::lock_guard lock(_mutex);
    return _done;
  }
  std::function<void(std::int64_t staged)> on_staged;

 private:
  mutable std::mutex _mutex;  // guards the two below
  std::int64_t _staged = 0;
  std::vector<std::string> _done;
};

/// Keeps what it is told, one line for each file.
struct RecordingGuard : RuntimeFreshnessGuard {
  void record_sync_update(const std::string& path, const std::string& kind,
                          const std::string& sha256) override {
    updates.push_back(path + " " + kind + " " + sha256);
  }
  std::vector<std::string> updates;
};

/// A downloader and what it stands on, wired as a manager wires it, between a data directory and a scripted
/// server. Waits take no time.
struct Network {
  Network() {
    credentials.set_get_token([] { return "token"; });
  }
  /// Makes `data` a flat directory with this manifest.
  void activate(std::shared_ptr<const Manifest> manifest, const std::string& manifest_bytes = {}) {
    active.set(std::make_shared<ActiveView>(
        ActiveView{.cohort = nullptr,
                   .data_dir = data.path(),
                   .manifest_bytes = std::make_shared<std::string>(manifest_bytes),
                   .manifest = std::move(manifest),
                   .vocabulary = nullptr}));
  }

  RecordedBackoff backoff;
  LogCapture log;
  TempDir data;
  origin::ScriptedServer server;
  Seams seams = Seams::real();
  Credentials credentials;
  RuntimeKnobs knobs{"urllib", nullptr, nullptr};
  HttpClient client{seams};
  ManagerHttp http{client, credentials, knobs};
  ActiveViewHolder active{std::make_shared<ActiveView>()};
  SupersedeProbe probe{http, active, server.url(), 1};
  HashCache hash_cache{data.path()};
  FreshnessGuardHolder guard;
  std::shared_ptr<CountingProgress> progress = std::make_shared<CountingProgress>();
  FileDownloader downloader{data.path(), server.url(), http,     probe, active,
                            hash_cache,  guard,        progress, seams};
};

}  // namespace tidalcrest::sync::testing
