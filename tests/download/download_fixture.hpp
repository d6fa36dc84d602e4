#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "download/file_downloader.hpp"
#include "host/digest.hpp"
#include "host/json.hpp"
#include "origin/scripted_server.hpp"
#include "support/failure_text.hpp"
#include "support/recorded_backoff.hpp"
#include "support/temp_dir.hpp"
#include "tidalcrest/sync/log.hpp"

namespace tidalcrest::sync::testing {

using origin::Reply;

/// Bytes of which no two neighbouring stretches are equal.
inline std::string pattern_bytes(std::size_t size) {
  std::string bytes;
  for (std::size_t i = 0; i < size; ++i) bytes += static_cast<char>('!' + (i * 7 + i / 90) % 90);
  return bytes;
}

/// The sync events of one test, without waits. Thread-safe.
class EventCapture {
 public:
  EventCapture() {
    set_log_sink([this](const LogRecord& record) {
      if (record.extra == nullptr) return;
      const Document& event = record.extra->at("tidalcrest_sync_event");
      const std::lock_guard lock(_mutex);
      if (event.at("event_type") != "sync_backoff_wait") _events.push_back(event);
    });
  }
  ~EventCapture() { set_log_sink({}); }
  std::vector<Document> of_type(const std::string& event_type) const {
    const std::lock_guard lock(_mutex);
    std::vector<Document> found;
    for (const auto& event : _events) {
      if (event.at("event_type") == event_type) found.push_back(event);
    }
    return found;
  }

 private:
  mutable std::mutex _mutex;  // guards `_events`
  std::vector<Document> _events;
};

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

/// One downloader, a data directory and a scripted origin between them. Waits take no time.
class DownloadFixture : public ::testing::Test {
 public:
  static constexpr std::int64_t CHUNK_BYTES = 40;

  DownloadFixture() {
    credentials.set_get_token([] { return "token"; });
  }

  static std::string url_path(const std::string& path) { return "/data/releases/" + path; }
  static Document entry_for(const std::string& bytes, const std::string& kind = "feature") {
    return {{"kind", kind}, {"sha256", sha256_hex(bytes)}, {"size_bytes", bytes.size()}};
  }
  void download(const std::string& path, const Document& file_info) {
    downloader._download_file({path, &file_info}, result, options);
  }
  /// Makes the origin say that a later manifest is out.
  void supersede() {
    options.generation.version = 10;
    options.generation.era_number = 5;
    server.script("/data/manifest/version",
                  {Reply{.body = R"({"market_id": 1, "version": 11, "era_number": 5})"}});
  }
  std::vector<std::string> ranges_asked(const std::string& path) const {
    return server.ranges_asked(url_path(path));
  }

  RecordedBackoff backoff;
  EventCapture events;
  TempDir data;
  origin::ScriptedServer server;
  Seams seams = Seams::real();
  Credentials credentials;
  RuntimeKnobs knobs{"urllib", CHUNK_BYTES, nullptr};
  HttpClient client{seams};
  ManagerHttp http{client, credentials, knobs};
  ActiveViewHolder active{std::make_shared<ActiveView>()};
  SupersedeProbe probe{http, active, server.url(), 1};
  HashCache hash_cache{data.path()};
  FreshnessGuardHolder guard;
  std::shared_ptr<CountingProgress> progress = std::make_shared<CountingProgress>();
  FileDownloader downloader{data.path(), server.url(), http,     probe, active,
                            hash_cache,  guard,        progress, seams};
  SyncResult result;
  DownloadOptions options{.generation = {server.url() + "/data/releases", {}, {}}};
};

}  // namespace tidalcrest::sync::testing
