#include "records.hpp"

#include <pybind11/stl.h>

#include "arguments.hpp"
#include "documents.hpp"

namespace tidalcrest::sync::python {
namespace {

py::object record_class(const char* name) {
  return py::module_::import("tidalcrest.sync._records").attr(name);
}

py::object attribute(const py::handle& value, const char* attribute_name, const char* name) {
  if (!py::hasattr(value, attribute_name)) raise_argument_type(name, "a rotation state", value);
  return value.attr(attribute_name);
}

}  // namespace

py::list paths_to_python(const std::vector<std::string>& paths) {
  py::list list;
  for (const auto& path : paths) list.append(path_to_python(path));
  return list;
}

py::object to_python(const SyncResult& result) {
  return record_class("SyncResult")(
      result.features_downloaded, result.useful_signals_downloaded, result.bytes_downloaded,
      result.era_number, result.t_signal_is, result.t_strategy_is, result.n_instruments, result.n_features,
      result.n_useful_signals, result.n_found_strategies, result.pnl_column_count,
      result.vocabulary_downloaded, result.shuffle_seed_downloaded,
      paths_to_python(result.active_relative_paths), paths_to_python(result.skipped_relative_paths),
      paths_to_python(result.mandatory_relative_paths), paths_to_python(result.found_pnl_paths_downloaded),
      result.rotation_seed, result.feature_budget_bytes);
}

py::object to_python(const VerifyResult& result) {
  return record_class("VerifyResult")(result.valid, paths_to_python(result.corrupted_files),
                                      paths_to_python(result.missing_files));
}

py::object to_python(const VerifiedActiveCohortSnapshot& snapshot) {
  return record_class("VerifiedActiveCohortSnapshot")(path_to_python(snapshot.base_dir()),
                                                      path_to_python(snapshot.root_dir()),
                                                      py::bytes(snapshot.manifest_bytes()));
}

py::object to_python(const RotationState& state) {
  return record_class("RotationState")(py::tuple(paths_to_python(state.active_relative_paths)),
                                       state.generation, state.seed, state.rng_state, state.algorithm,
                                       state.reason);
}

py::object to_python(const CollectionReport& report) {
  const py::object entry = record_class("CollectedRoot");
  py::list removed;
  for (const auto& root : report.removed) {
    removed.append(entry(path_to_python(root.relative_path), root.why, root.bytes));
  }
  return record_class("CollectionReport")(removed, report.bytes_freed, paths_to_python(report.kept));
}

RotationState rotation_state_argument(const py::handle& value, const char* name) {
  return {
      .active_relative_paths =
          texts_argument(attribute(value, "active_relative_paths", name), "active_relative_paths"),
      .generation = integer_argument(attribute(value, "generation", name), "generation"),
      .seed = integer_argument(attribute(value, "seed", name), "seed"),
      .rng_state = text_argument(attribute(value, "rng_state", name), "rng_state"),
      .algorithm = text_argument(attribute(value, "algorithm", name), "algorithm"),
      .reason = text_argument(attribute(value, "reason", name), "reason"),
  };
}

}  // namespace tidalcrest::sync::python
