#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "host/mutex.hpp"
#include "tidalcrest/sync/era_callback.hpp"

namespace tidalcrest::sync {

/// The list of those who want to hear of a transition. `_era_callbacks_lock` guards the list alone and is
/// never held while a callback runs, is copied or destroyed, so a callback may register or unregister.
class EraCallbacks {
 public:
  /// The same callable can be registered twice.
  void register_era_callback(EraCallback callback);
  /// Removes the first occurrence; an unknown callable is ignored.
  void unregister_era_callback(const EraCallback& callback);
  /// Calls each in registration order. A failing one is logged and the others still run.
  void _notify_era_callbacks(const std::string& event_type, std::int64_t era_number);

 private:
  Mutex _era_callbacks_lock;  // a leaf
  std::vector<std::shared_ptr<const EraCallback>> _era_callbacks GUARDED_BY(_era_callbacks_lock);
};

}  // namespace tidalcrest::sync
