#include "tidalcrest/sync/rotation.hpp"

#include "arguments.hpp"
#include "bindings.hpp"
#include "blocking_call.hpp"
#include "documents.hpp"
#include "records.hpp"

namespace tidalcrest::sync::python {
namespace {

py::object load(const py::object& data_dir) {
  const std::string directory = path_argument(data_dir, "data_dir");
  const auto state = without_gil([&] { return load_feature_rotation_state(directory); });
  return state ? to_python(*state) : py::none();
}

py::object write(const py::object& data_dir, const py::object& state) {
  const std::string directory = path_argument(data_dir, "data_dir");
  const RotationState given = rotation_state_argument(state, "state");
  return path_to_python(without_gil([&] { return write_feature_rotation_state(directory, given); }));
}

// The report looks at keys of a mapping; anything else means no settings.
Document settings_argument(const py::object& settings_payload) {
  if (!py::hasattr(settings_payload, "items")) return nullptr;
  return to_document(settings_payload, "settings_payload");
}

py::object status(const py::object& data_dir, const py::object& settings_payload) {
  const std::string directory = path_argument(data_dir, "data_dir");
  const Document settings = settings_argument(settings_payload);
  return to_python(without_gil([&] { return feature_rotation_status_payload(directory, settings); }));
}

}  // namespace

void bind_rotation(py::module_& module) {
  module.def(
      "feature_rotation_state_path",
      [](const py::object& data_dir) {
        return path_to_python(feature_rotation_state_path(path_argument(data_dir, "data_dir")));
      },
      py::arg("data_dir"), "feature-rotation-state.json in the data directory.");
  module.def("load_feature_rotation_state", &load, py::arg("data_dir"),
             "The persisted RotationState; None when there is no file. Raises FeatureRotationStateError.");
  module.def("write_feature_rotation_state", &write, py::arg("data_dir"), py::arg("state"),
             "Writes the file whole and gives its path. Raises FeatureRotationStateError or SyncError.");
  module.def("feature_rotation_status_payload", &status, py::arg("data_dir"),
             py::arg("settings_payload") = py::none(),
             "The rotation's condition as one dict, from the data directory alone: no network, no manager.");
}

}  // namespace tidalcrest::sync::python
