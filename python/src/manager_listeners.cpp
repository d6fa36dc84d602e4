#include "arguments.hpp"
#include "callbacks.hpp"
#include "documents.hpp"
#include "manager_class.hpp"

namespace tidalcrest::sync::python {
namespace {

void register_era_callback(const py::object& self, const py::object& callback) {
  callable_argument(callback, "callback", /*or_none=*/false);
  const auto manager = shared(self);
  const auto registered = std::make_shared<RegisteredEraCallback>(callback);
  manager->register_era_callback(
      {.call = [registered, call = era_callback(callback)](
                   const std::string& event_type, std::int64_t era_number) { call(event_type, era_number); },
       .identity = registered.get(),
       .label = text_from_python(py::repr(callback))});
  side_of(manager).era_callbacks.add(registered);
}

void unregister_era_callback(const py::object& self, const py::object& callback) {
  const auto manager = shared(self);
  const auto registered = side_of(manager).era_callbacks.find(callback);
  if (!registered) return;
  side_of(manager).era_callbacks.remove(registered);
  manager->unregister_era_callback({.call = {}, .identity = registered.get()});
}

void register_search_consumer(const py::object& self, const py::object& consumer) {
  const auto manager = shared(self);
  if (side_of(manager).search_consumers.find(consumer)) return;
  const auto registered = std::make_shared<PythonSearchConsumer>(consumer);
  side_of(manager).search_consumers.add(registered);
  manager->register_rotation_search_consumer(registered);
}

void unregister_search_consumer(const py::object& self, const py::object& consumer) {
  const auto manager = shared(self);
  const auto registered = side_of(manager).search_consumers.find(consumer);
  if (!registered) return;
  side_of(manager).search_consumers.remove(registered);
  manager->unregister_rotation_search_consumer(*registered);
}

void refresh_running_searches(const py::object& self, const py::object& rotation_state,
                              const py::object& vocabulary, const py::object& manifest) {
  const RotationState state = rotation_state_argument(rotation_state, "rotation_state");
  const Document document = to_document(vocabulary, "vocabulary");
  if (!manifest.is_none() && !py::isinstance<Manifest>(manifest)) {
    raise_argument_type("manifest", "a Manifest", manifest);
  }
  const auto* given = manifest.is_none() ? nullptr : manifest.cast<const Manifest*>();
  without_gil([manager = shared(self), &state, &document, given] {
    manager->refresh_running_searches_for_rotation(state, document, given);
  });
}

}  // namespace

void bind_manager_listeners(ManagerClass& manager) {
  manager
      .def("register_era_callback", &register_era_callback, py::arg("callback"),
           "callback(event_type, era_number) hears of a transition: \"kill\", \"restart\" or \"abort\".")
      .def("unregister_era_callback", &unregister_era_callback, py::arg("callback"),
           "Removes the first registration of an equal callback; an unknown one is ignored.")
      .def(
          "_notify_era_callbacks",
          [](const py::object& self, const py::object& event_type, const py::object& era_number) {
            const std::string type = text_argument(event_type, "event_type");
            const std::int64_t era = integer_argument(era_number, "era_number");
            without_gil([&, manager = shared(self)] { manager->_notify_era_callbacks(type, era); });
          },
          py::arg("event_type"), py::arg("era_number"), "Calls the era callbacks in registration order.")
      .def(
          "_record_signals_index_update",
          [](const py::object& self, const py::object& signals_index_update) {
            const Document update = to_document(signals_index_update, "signals_index_update");
            without_gil([&, manager = shared(self)] { manager->_record_signals_index_update(update); });
          },
          py::arg("signals_index_update"),
          "Tells the freshness guard and the hash cache of a fresh signals index.")
      .def("register_rotation_search_consumer", &register_search_consumer, py::arg("consumer"),
           "Its refresh_rotation_scope(rotation_state, scoped_vocabulary) is called after a rotation.")
      .def("unregister_rotation_search_consumer", &unregister_search_consumer, py::arg("consumer"),
           "Removes an equal consumer; one that is not present is ignored.")
      .def("refresh_running_searches_for_rotation", &refresh_running_searches, py::arg("rotation_state"),
           py::arg("vocabulary"), py::arg("manifest") = py::none(),
           "Prepares and delivers refreshes; for a caller that rotated by itself.");
}

}  // namespace tidalcrest::sync::python
