#include "callbacks.hpp"
#include "documents.hpp"
#include "manager_class.hpp"

namespace tidalcrest::sync::python {
namespace {

py::object guard_of(const SyncManager& manager) {
  const auto guard = std::dynamic_pointer_cast<PythonFreshnessGuard>(manager.runtime_freshness_guard());
  return guard ? guard->object() : py::none();
}

void set_guard(SyncManager& manager, const py::object& guard) {
  manager.set_runtime_freshness_guard(guard.is_none() ? nullptr
                                                      : std::make_shared<PythonFreshnessGuard>(guard));
}

}  // namespace

void bind_manager_state(ManagerClass& manager) {
  manager
      .def_property_readonly(
          "data_dir", [](const SyncManager& self) { return path_to_python(self.data_dir()); },
          "The data directory as passed.")
      .def_property_readonly(
          "server_url", [](const SyncManager& self) { return text_to_python(self.server_url()); },
          "API base URL.")
      .def_property_readonly("market_id", &SyncManager::market_id, "The configured market.")
      .def_property_readonly("poll_interval_s", &SyncManager::poll_interval_s, "Seconds between polls.")
      .def_property_readonly(
          "active_data_dir", [](const SyncManager& self) { return path_to_python(self.active_data_dir()); },
          "Root of the active data: a generation root, or the data directory.")
      .def_property_readonly(
          "active_rotation_state",
          [](const SyncManager& self) -> py::object {
            const auto state = self.active_rotation_state();
            return state ? to_python(*state) : py::none();
          },
          "The active RotationState, or None.")
      .def_property_readonly(
          "vocabulary",
          [](const SyncManager& self) -> py::object {
            const auto vocabulary = self.vocabulary();
            return vocabulary ? to_python(*vocabulary) : py::none();
          },
          "The merged validated vocabularies of the active cohort by named universe, or None. A fresh copy.")
      .def_property("runtime_freshness_guard", &guard_of, &set_guard,
                    "Its record_sync_update(relative_path, kind, sha256) is told of files put into the data "
                    "directory itself.")
      .def(
          "get_manifest",
          [](const SyncManager& self) { return std::const_pointer_cast<Manifest>(self.get_manifest()); },
          "Return current local Manifest or None.")
      .def(
          "status",
          [](const SyncManager& self) -> py::object {
            const auto status = self.status();
            return status ? py::object(text_to_python(*status)) : py::none();
          },
          "Return the current human-readable sync status, if any.")
      .def("consumer_count", &SyncManager::consumer_count, "Return the current number of active consumers.")
      .def(
          "is_alive",
          [](const SyncManager& self) {
            const Unlocked unlocked;  // a start asks siblings under the same lock
            return self.is_alive();
          },
          "Health check returning thread responsiveness.")
      .def(
          "needs_sync",
          [](const py::object& self) {
            return without_gil([manager = shared(self)] { return manager->needs_sync(); });
          },
          "Lightweight sync check using version plus local integrity state; true on every doubt.");
}

}  // namespace tidalcrest::sync::python
