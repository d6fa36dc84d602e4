#include "tidalcrest/sync/era_thread.hpp"

#include <utility>

#include "core/wiring.hpp"
#include "era/era_monitor.hpp"

namespace tidalcrest::sync {

EraThread::EraThread(std::string server_url, std::function<std::string()> get_token,
                     SyncManager& sync_manager, double era_poll_interval_s,
                     std::function<void()> kill_searches_fn, std::function<void()> restart_searches_fn,
                     const Document& market_id)
    : _monitor(std::make_unique<EraMonitor>(EraMonitor::Options{
          .server_url = std::move(server_url),
          .get_token = std::move(get_token),
          .target = std::shared_ptr<const EraTarget>(sync_manager._wiring, &sync_manager._wiring->era_target),
          .poll_interval = era_poll_interval_s,
          .kill_searches_fn = std::move(kill_searches_fn),
          .restart_searches_fn = std::move(restart_searches_fn),
          .market_id = market_id,
      })) {}

EraThread::~EraThread() = default;

void EraThread::start() { _monitor->start(); }

void EraThread::stop() { _monitor->stop(); }

bool EraThread::is_alive() const { return _monitor->is_alive(); }

EraMemory EraThread::memory() const { return _monitor->memory(); }

}  // namespace tidalcrest::sync
