#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "artifacts/fixture.hpp"
#include "download/file_downloader.hpp"
#include "origin/scripted_server.hpp"
#include "siblings/distribution/sync_backoff.hpp"

namespace tidalcrest::sync::artifacts_testing {

/// Backoff without spending time: records the waits, and stops the wait that `stop_at` counts to.
class RecordedBackoff : public sync_backoff::Module {
 public:
  double delay_seconds(std::int64_t attempt_index) override { return static_cast<double>(attempt_index) + 1; }
  bool sleep(double wait_seconds, const std::function<void(double)>&, const std::function<bool()>&) override {
    waits.push_back(wait_seconds);
    return waits.size() != stop_at;
  }
  [[noreturn]] void raise_cancelled() override { throw SyncBackoffCancelled("cancelled"); }
  Document sync_backoff_event_fields(const std::string& surface, std::int64_t attempt, double wait_seconds,
                                     const std::string& reason, const std::string& file_path) override {
    events.push_back(surface + " " + std::to_string(attempt) + " " + reason + " " + file_path);
    return {{"event_type", "sync_backoff_wait"}, {"surface", surface}, {"attempt", attempt},
            {"wait_seconds", wait_seconds},      {"reason", reason},   {"file_path", file_path}};
  }
  BackoffContext current_context() override { return {}; }
  std::shared_ptr<void> enter_context(BackoffContext) override { return nullptr; }

  std::vector<double> waits;
  std::vector<std::string> events;
  std::size_t stop_at = 0;  // never
};

/// What an artifact that is fetched stands on, wired as a manager wires it, with a scripted server.
struct Network {
  Network() { sync_backoff::module_seam().install(backoff); }
  ~Network() { sync_backoff::module_seam().install(nullptr); }

  void activate(std::shared_ptr<const Manifest> manifest, const std::string& manifest_bytes) {
    active.set(std::make_shared<ActiveView>(
        ActiveView{.cohort = nullptr,
                   .data_dir = root.path(),
                   .manifest_bytes = std::make_shared<std::string>(manifest_bytes),
                   .manifest = std::move(manifest),
                   .vocabulary = nullptr}));
  }
  std::size_t requests_for(const std::string& path) const { return server.requests("/" + path).size(); }

  std::shared_ptr<RecordedBackoff> backoff = std::make_shared<RecordedBackoff>();
  TempRoot root;
  origin::ScriptedServer server;
  Seams seams = Seams::real();
  Credentials credentials;
  RuntimeKnobs knobs{"urllib", nullptr, nullptr};
  HttpClient client{seams};
  ManagerHttp http{client, credentials, knobs};
  HashCache hash_cache{root.path()};
  FreshnessGuardHolder guard;
  ActiveViewHolder active{std::make_shared<ActiveView>()};
  SupersedeProbe probe{http, active, server.url(), 1};
  FileDownloader downloader{root.path(), server.url(), http,  probe,
                            active,      hash_cache,   guard, std::make_shared<SyncProgress>(),
                            seams};
};

}  // namespace tidalcrest::sync::artifacts_testing
