#include "arguments.hpp"
#include "bindings.hpp"
#include "callbacks.hpp"
#include "collectable.hpp"
#include "documents.hpp"
#include "manager_arguments.hpp"
#include "manager_class.hpp"
#include "pin.hpp"
#include "records.hpp"

namespace tidalcrest::sync::python {
namespace {

ManagerHolder known(std::shared_ptr<SyncManager> manager) {
  side_of(manager);
  return ManagerHolder(std::move(manager));
}

ManagerHolder constructed(const py::object& data_dir, const py::object& server_url,
                          const py::object& get_token, const py::object& poll_interval_s,
                          const py::object& runtime_freshness_guard, const py::object& token,
                          const py::object& market_id, const py::object& sync_http_transport,
                          const py::object& sync_http_chunk_bytes, const py::object& sync_max_concurrency,
                          const py::object& get_wallet_secret) {
  SyncOptions options = ManagerArguments{data_dir,
                                         server_url,
                                         get_token,
                                         poll_interval_s,
                                         runtime_freshness_guard,
                                         token,
                                         market_id,
                                         sync_http_transport,
                                         sync_http_chunk_bytes,
                                         sync_max_concurrency,
                                         get_wallet_secret}
                            .options();
  return known(without_gil([&] { return std::make_shared<SyncManager>(std::move(options)); }));
}

ManagerHolder got_or_created(const py::object& data_dir, const py::object& server_url,
                             const py::object& get_token, const py::object& poll_interval_s,
                             const py::object& runtime_freshness_guard, const py::object& market_id,
                             const py::object& sync_http_transport, const py::object& sync_http_chunk_bytes,
                             const py::object& sync_max_concurrency, const py::object& get_wallet_secret) {
  SyncOptions options =
      ManagerArguments{
          data_dir,         server_url, get_token,           poll_interval_s,       runtime_freshness_guard,
          py::none(),       market_id,  sync_http_transport, sync_http_chunk_bytes, sync_max_concurrency,
          get_wallet_secret}
          .options();
  return known(without_gil([&] { return SyncManager::get_or_create(std::move(options)); }));
}

std::vector<std::string> feature_names_of(const py::object& feature_names) {
  std::vector<std::string> names;
  if (feature_names.is_none()) return names;
  const bool is_text = PyUnicode_Check(feature_names.ptr()) || PyBytes_Check(feature_names.ptr());
  if (is_text || !py::hasattr(feature_names, "__iter__")) {
    raise_argument_type("feature_names", "an iterable of names", feature_names);
  }
  for (const py::handle& name : py::iter(feature_names)) names.push_back(text_from_python(py::str(name)));
  return names;
}

// A text, or the value of an enumeration's member.
std::string expression_type_of(const py::object& expression_type) {
  return text_from_python(py::str(py::getattr(expression_type, "value", expression_type)));
}

void bind_construction(ManagerClass& manager) {
  manager
      .def(py::init(&constructed), py::arg("data_dir"), py::arg("server_url"),
           py::arg("get_token") = py::none(),
           py::arg("poll_interval_s") = SYNC_MANIFEST_POLL_INTERVAL_SECONDS,
           py::arg("runtime_freshness_guard") = py::none(), py::arg("token") = py::none(),
           py::arg("market_id") = DEFAULT_AGENT_MARKET_ID, py::arg("sync_http_transport") = py::none(),
           py::arg("sync_http_chunk_bytes") = py::none(), py::arg("sync_max_concurrency") = py::none(),
           py::arg("get_wallet_secret") = py::none(),
           "Reads what is on disk and comes up with the selected cohort when it is complete and proves "
           "itself; touches no network. Stays outside the registry.")
      .def_static(
          "get_or_create", &got_or_created, py::arg("data_dir"), py::arg("server_url"), py::arg("get_token"),
          py::arg("poll_interval_s") = SYNC_MANIFEST_POLL_INTERVAL_SECONDS,
          py::arg("runtime_freshness_guard") = py::none(), py::arg("market_id") = DEFAULT_AGENT_MARKET_ID,
          py::arg("sync_http_transport") = py::none(), py::arg("sync_http_chunk_bytes") = py::none(),
          py::arg("sync_max_concurrency") = py::none(), py::arg("get_wallet_secret") = py::none(),
          "The shared manager of a data directory, keyed by its real path. A later call replaces the token "
          "supplier, and what else it gives of suppliers, knobs and guard; its poll interval is ignored.")
      .def_static(
          "_evict",
          [](const py::object& data_dir) {
            const std::string path = path_argument(data_dir, "data_dir");
            without_gil([&path] { SyncManager::_evict(path); });
          },
          py::arg("data_dir"), "Takes an instance out of the registry; an unknown directory is no failure.")
      .def(
          "_set_sync_runtime_knobs",
          [](SyncManager& self, const py::object& transport, const py::object& chunk_bytes,
             const py::object& concurrency) {
            self._set_sync_runtime_knobs(knob_argument(transport), knob_argument(chunk_bytes),
                                         knob_argument(concurrency));
          },
          py::arg("sync_http_transport") = py::none(), py::arg("sync_http_chunk_bytes") = py::none(),
          py::arg("sync_max_concurrency") = py::none(), "Changes the given knobs; None keeps a value.");
}

void bind_main_job(ManagerClass& manager) {
  manager
      .def("sync", waiting(&SyncManager::sync),
           "Full sync: manifest, compare, download, verify, atomic write.")
      .def("verify", waiting(&SyncManager::verify),
           "Verify one descriptor-pinned active cohort and operational seed pair.")
      .def(
          "repair",
          [](const py::object& self, const py::object& corrupted_files) {
            const auto files = texts_argument(corrupted_files, "corrupted_files");
            return to_python(without_gil([&, manager = shared(self)] { return manager->repair(files); }));
          },
          py::arg("corrupted_files"), "Re-download members through the complete-cohort staging boundary.")
      .def(
          "pin_active_cohort_snapshot",
          [](const py::object& self) { return PinScope(self.cast<ManagerHolder>()); },
          "Hold the writer lock order while consumers read one exact cohort. A context manager.")
      .def("active_cohort_snapshot", waiting(&SyncManager::active_cohort_snapshot),
           "Return one exact snapshot after a stable-selector readback.")
      .def(
          "active_cohort_data_dir",
          [](const py::object& self) {
            return path_to_python(
                without_gil([manager = shared(self)] { return manager->active_cohort_data_dir(); }));
          },
          "Return the exact manifest-selected generation root.")
      .def(
          "collect_generations",
          [](const py::object& self, const py::object& keep, const py::object& dry_run) {
            const std::int64_t kept = integer_argument(keep, "keep");
            const bool only_plan = flag_argument(dry_run);
            return to_python(without_gil(
                [&, manager = shared(self)] { return manager->collect_generations(kept, only_plan); }));
          },
          py::arg("keep") = 2, py::arg("dry_run") = false,
          "Removes generation roots that are not selected, not pinned and not among the newest `keep`.");
}

void bind_requests(ManagerClass& manager) {
  manager
      .def(
          "ensure_manifest_file_available",
          [](const py::object& self, const py::object& file_path, const py::object& file_info) {
            const std::string path = text_argument(file_path, "file_path");
            const Document info = to_document(file_info, "file_info");
            return to_python(without_gil(
                [&, manager = shared(self)] { return manager->ensure_manifest_file_available(path, info); }));
          },
          py::arg("file_path"), py::arg("file_info"),
          "Ensure one manifest file exists locally through the sync boundary.")
      .def(
          "add_active_feature_paths",
          [](const py::object& self, const py::object& relative_paths) {
            const auto paths = texts_argument(relative_paths, "relative_paths");
            return paths_to_python(without_gil(
                [&, manager = shared(self)] { return manager->add_active_feature_paths(paths); }));
          },
          py::arg("relative_paths"), "Add feature paths to the active rotation state and persist it.")
      .def(
          "request_for_sync",
          [](const py::object& self) {
            return paths_to_python(
                without_gil([manager = shared(self)] { return manager->request_for_sync(); }));
          },
          "Cross-process sync trigger, returns file paths.")
      .def(
          "_get_found_file_paths",
          [](const py::object& self) {
            return paths_to_python(
                without_gil([manager = shared(self)] { return manager->_get_found_file_paths(); }));
          },
          "Get all found signal and strategy PnL file paths, ordered newest first.")
      .def(
          "request_feature_files_for_sync",
          [](const py::object& self, const py::object& feature_names, const py::object& expression_type,
             const py::object& named_universe) {
            const auto names = feature_names_of(feature_names);
            const std::string type = expression_type_of(expression_type);
            const auto universe = optional_text_argument(named_universe, "named_universe");
            return paths_to_python(without_gil([&, manager = shared(self)] {
              return manager->request_feature_files_for_sync(names, type, universe);
            }));
          },
          py::arg("feature_names"), py::arg("expression_type") = "SIGNAL",
          py::arg("named_universe") = py::none(),
          "Ensures that the manifest's files of the named features are in the active cohort; gives their "
          "local paths.")
      .def(
          "report_corruption",
          [](const py::object& self, const py::object& file_path) {
            const std::string path = text_argument(file_path, "file_path");
            without_gil([&, manager = shared(self)] { manager->report_corruption(path); });
          },
          py::arg("file_path"), "Cross-process corruption report, queues async repair.");
}

void bind_lifecycle(ManagerClass& manager) {
  manager.def("acquire", waiting(&SyncManager::acquire), "Register as consumer, start threads if first.")
      .def("release", waiting(&SyncManager::release), "Deregister as consumer, stop threads if last.")
      .def("start", waiting(&SyncManager::start), "Start background sync polling loop.")
      .def("stop", waiting(&SyncManager::stop), "Stop background sync polling loop.")
      .def(
          "cleanup_old_eras",
          [](const py::object& self, const py::object& keep_current) {
            const bool keep = flag_argument(keep_current);
            return without_gil([&, manager = shared(self)] { return manager->cleanup_old_eras(keep); });
          },
          py::arg("keep_current") = true,
          "Deletes the era-named directories of earlier eras; gives the bytes freed.")
      .def(
          "_schedule_cleanup_old_eras",
          [](const py::object& self, const py::object& keep_current) {
            const bool keep = flag_argument(keep_current);
            without_gil([&, manager = shared(self)] { manager->_schedule_cleanup_old_eras(keep); });
          },
          py::arg("keep_current") = true, "The same on a background thread, at most one at a time.")
      .def(
          "trigger_era_transition",
          [](const py::object& self, const py::object& new_era_number, const py::object& kill_searches_fn,
             const py::object& restart_searches_fn) {
            const Document era_number = to_document(new_era_number, "new_era_number");
            const auto kill = plain_callback(callable_argument(kill_searches_fn, "kill_searches_fn", true));
            const auto restart =
                plain_callback(callable_argument(restart_searches_fn, "restart_searches_fn", true));
            without_gil(
                [&, manager = shared(self)] { manager->trigger_era_transition(era_number, kill, restart); });
          },
          py::arg("new_era_number"), py::arg("kill_searches_fn") = py::none(),
          py::arg("restart_searches_fn") = py::none(),
          "Moves the directory to an era, with searches stopped.");
}

}  // namespace

void bind_manager(py::module_& module) {
  ManagerClass manager(module, "SyncManager", py::dynamic_attr(),
                       "Data synchronization manager with background polling and IPC.");
  hide_dying_from_collector(manager);
  bind_construction(manager);
  bind_manager_state(manager);
  bind_main_job(manager);
  bind_requests(manager);
  bind_lifecycle(manager);
  bind_manager_listeners(manager);
}

}  // namespace tidalcrest::sync::python
