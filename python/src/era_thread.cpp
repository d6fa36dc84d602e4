#include "tidalcrest/sync/era_thread.hpp"

#include "arguments.hpp"
#include "bindings.hpp"
#include "blocking_call.hpp"
#include "callbacks.hpp"
#include "collectable.hpp"
#include "documents.hpp"
#include "manager_side.hpp"
#include "shared_holder.hpp"

namespace tidalcrest::sync::python {
namespace {

using Holder = SharedHolder<EraThread>;

SyncManager& manager_argument(const py::object& value) {
  if (!py::isinstance<SyncManager>(value)) raise_argument_type("sync_manager", "a SyncManager", value);
  return value.cast<SyncManager&>();
}

Holder constructed(const py::object& server_url, const py::object& get_token, const py::object& sync_manager,
                   const py::object& era_poll_interval_s, const py::object& kill_searches_fn,
                   const py::object& restart_searches_fn, const py::object& market_id) {
  SyncManager& manager = manager_argument(sync_manager);
  auto thread = std::make_shared<EraThread>(
      text_argument(server_url, "server_url"),
      token_supplier(callable_argument(get_token, "get_token", /*or_none=*/false)), manager,
      number_argument(era_poll_interval_s, "era_poll_interval_s"),
      plain_callback(callable_argument(kill_searches_fn, "kill_searches_fn", /*or_none=*/true)),
      plain_callback(callable_argument(restart_searches_fn, "restart_searches_fn", /*or_none=*/true)),
      market_id_argument(market_id));
  stop_at_exit(thread, [weak = std::weak_ptr(thread)] {
    if (const auto alive = weak.lock()) alive->stop();
  });
  return Holder(std::move(thread));
}

template <class Read>
auto remembering(Read read) {
  return [read](const EraThread& self) { return read(self.memory()); };
}

py::object optional_text(const std::optional<std::string>& text) {
  return text ? py::object(text_to_python(*text)) : py::none();
}

}  // namespace

void bind_era_thread(py::module_& module) {
  py::class_<EraThread, Holder> thread(
      module, "EraThread", py::dynamic_attr(),
      "Monitors the era of a manager's market on a background thread, and runs a "
      "transition on it when an era closes or another one opens.");
  hide_dying_from_collector(thread);
  thread
      .def(py::init(&constructed), py::arg("server_url"), py::arg("get_token"), py::arg("sync_manager"),
           py::arg("era_poll_interval_s") = ERA_POLL_INTERVAL_SECONDS,
           py::arg("kill_searches_fn") = py::none(), py::arg("restart_searches_fn") = py::none(),
           py::arg("market_id") = DEFAULT_AGENT_MARKET_ID,
           "get_token is asked on every poll; the two callables are handed to the transition. The manager "
           "is not owned.")
      .def(
          "start",
          [](const py::object& self) {
            without_gil([held = self.cast<Holder>().shared()] { held->start(); });
          },
          "Polls at once, then every era_poll_interval_s seconds. StateError when it is started already.")
      .def(
          "stop",
          [](const py::object& self) {
            without_gil([held = self.cast<Holder>().shared()] { held->stop(); });
          },
          "Waits up to 10 seconds for the thread. No effect when it is not started.")
      .def(
          "is_alive",
          [](const EraThread& self) {
            const Unlocked unlocked;
            return self.is_alive();
          },
          "Whether the thread runs.")
      .def_property_readonly("_last_known_era_number", remembering([](const EraMemory& memory) {
                               return to_python(memory.last_known_era_number);
                             }),
                             "The era that the last completed transition to a new era reached.")
      .def_property_readonly("_last_known_state", remembering([](const EraMemory& memory) {
                               return optional_text(memory.last_known_state);
                             }),
                             "Reserved, never set.")
      .def_property_readonly("_in_closing",
                             remembering([](const EraMemory& memory) { return memory.in_closing; }),
                             "A closing has been acted on and no new era has arrived yet.")
      .def_property_readonly("_transition_failed",
                             remembering([](const EraMemory& memory) { return memory.transition_failed; }),
                             "The latest transition attempt failed.")
      .def_property_readonly("_last_transition_error", remembering([](const EraMemory& memory) {
                               return optional_text(memory.last_transition_error);
                             }),
                             "What that attempt failed with.");
}

}  // namespace tidalcrest::sync::python
