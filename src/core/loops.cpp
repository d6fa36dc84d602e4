#include "core/loops.hpp"

#include <utility>

namespace tidalcrest::sync {

SyncManager::Loops::Loops(const std::shared_ptr<Wiring>& wiring)
    : lifecycle(
          wiring->data_dir,
          {.state = wiring->state,
           .consumers = wiring->consumers,
           .lock = wiring->lock,
           .era_callbacks = {wiring, &wiring->era_callbacks},
           .active = {wiring, &wiring->active},
           .poll_loop =
               [wiring](const std::shared_ptr<const Event>& stop) { wiring->poll_loop._poll_loop(stop); },
           .make_era_thread =
               [wiring](std::function<void()> kill_searches_fn, std::function<void()> restart_searches_fn) {
                 return std::make_shared<EraMonitor>(EraMonitor::Options{
                     .server_url = wiring->server_url,
                     // Asked anew at each poll: the newest supplier wins.
                     .get_token = [wiring] { return wiring->credentials.get_token(); },
                     .target = std::shared_ptr<const EraTarget>(wiring, &wiring->era_target),
                     .poll_interval = wiring->poll_interval,
                     .kill_searches_fn = std::move(kill_searches_fn),
                     .restart_searches_fn = std::move(restart_searches_fn),
                     .market_id = wiring->market_id,
                 });
               }},
          wiring->seams) {}

}  // namespace tidalcrest::sync
