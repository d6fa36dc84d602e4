#include "siblings/auth/auth.hpp"

#include "host/log.hpp"
#include "host/mutex.hpp"
#include "host/never_destroyed.hpp"

namespace tidalcrest::sync::auth {
namespace {

Mutex notified_mutex;
std::optional<std::int64_t> notified_era_number GUARDED_BY(notified_mutex);

// A token is asked for anew at every request, so there is no cached one to drop: the change is noted and
// told.
class BuiltIn final : public Module {
 public:
  void notify_era_change(std::int64_t era_number) override {
    {
      const MutexLock lock(notified_mutex);
      notified_era_number = era_number;
    }
    log::info("Authentication was told of era %d", era_number);
  }
};

}  // namespace

ModuleSeam<Module>& module_seam() {
  static auto& seam = never_destroyed<ModuleSeam<Module>>(std::make_shared<BuiltIn>());
  return seam;
}

void notify_era_change(std::int64_t era_number) { module_seam().current()->notify_era_change(era_number); }

std::optional<std::int64_t> last_notified_era_number() {
  const MutexLock lock(notified_mutex);
  return notified_era_number;
}

}  // namespace tidalcrest::sync::auth
