#include "manager_side.hpp"

#include <map>

#include "interpreter.hpp"

namespace tidalcrest::sync::python {
namespace {

struct KnownManager {
  std::weak_ptr<SyncManager> manager;
  std::unique_ptr<ManagerSide> side;
};

// Never destroyed: Python objects may outlive the static ones.
std::map<const SyncManager*, KnownManager>& known_managers() {
  static auto* const managers = new std::map<const SyncManager*, KnownManager>;
  return *managers;
}

}  // namespace

ManagerSide& side_of(const std::shared_ptr<SyncManager>& manager) {
  auto& managers = known_managers();
  std::erase_if(managers, [](const auto& entry) { return entry.second.manager.expired(); });
  auto& known = managers[manager.get()];
  if (!known.side) {
    known = {manager, std::make_unique<ManagerSide>()};
    stop_at_exit(manager, [weak = std::weak_ptr(manager)] {
      if (const auto alive = weak.lock()) alive->stop();
    });
  }
  return *known.side;
}

}  // namespace tidalcrest::sync::python
