#pragma once

#include <memory>

#include "registrations.hpp"
#include "search_consumer.hpp"
#include "tidalcrest/sync/sync_manager.hpp"

namespace tidalcrest::sync::python {

/// One registration of an era callback.
class RegisteredEraCallback {
 public:
  explicit RegisteredEraCallback(const py::object& callback) : _callback(callback) {}
  py::object object() const { return _callback.get(); }

 private:
  const ObjectRef _callback;
};

/// What this face knows of a manager beside the manager itself; there is one as long as the manager lives,
/// also while no Python object stands for it. Guarded by the GIL.
struct ManagerSide {
  Registrations<RegisteredEraCallback> era_callbacks;
  Registrations<PythonSearchConsumer> search_consumers;
};

/// A manager whose side is asked for the first time is stopped when the interpreter goes.
ManagerSide& side_of(const std::shared_ptr<SyncManager>& manager);

}  // namespace tidalcrest::sync::python
