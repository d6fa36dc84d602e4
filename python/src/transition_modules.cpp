#include "arguments.hpp"
#include "documents.hpp"
#include "exceptions.hpp"
#include "interpreter.hpp"
#include "module_table.hpp"
#include "sdk_modules.hpp"
#include "siblings/deployment/deployment.hpp"
#include "siblings/search_tracking/search_tracker.hpp"

namespace tidalcrest::sync::python {
namespace {

std::optional<std::string> optional_text(const py::object& value) {
  if (value.is_none()) return std::nullopt;
  return text_from_python(py::str(value));
}

class HostDeployment final : public deployment::Module {
 public:
  explicit HostDeployment(const py::object& module) : _module(module) {}

  std::string current_version() override {
    const Locked locked;
    return calling_python([&] { return text_from_python(py::str(_module.get().attr("_CURRENT_VERSION"))); });
  }

  int compare_versions(const std::string& first, const std::string& second) override {
    const Locked locked;
    return calling_python([&] {
      const py::object order =
          _module.get().attr("_compare_versions")(text_to_python(first), text_to_python(second));
      return static_cast<int>(order > py::int_(0)) - static_cast<int>(order < py::int_(0));
    });
  }

  std::optional<std::string> check_update(const std::string& current_version) override {
    const Locked locked;
    return calling_python(
        [&] { return optional_text(_module.get().attr("check_update")(text_to_python(current_version))); });
  }

  deployment::UpdateResult auto_update(const std::string& version) override {
    const Locked locked;
    return calling_python([&] {
      const py::object result = _module.get().attr("auto_update")(text_to_python(version));
      const py::object success = attribute_or(result, "success", py::bool_(true));
      return deployment::UpdateResult{.success = PyObject_IsTrue(success.ptr()) == 1,
                                      .warning = optional_text(attribute_or(result, "warning", py::none()))};
    });
  }

 private:
  const ObjectRef _module;
};

class HostTracker final : public search_tracking::SearchTracker {
 public:
  explicit HostTracker(const py::object& tracker) : _tracker(tracker) {}

  void handle_era_transition(std::int64_t new_era_number,
                             std::optional<std::int64_t> previous_era_number) override {
    const Locked locked;
    calling_python([&] {
      _tracker.get().attr("handle_era_transition")(
          py::arg("new_era_number") = new_era_number,
          py::arg("previous_era_number") = optional_integer(previous_era_number));
    });
  }

  void close() override {
    const Locked locked;
    calling_python([&] { _tracker.get().attr("close")(); });
  }

 private:
  const ObjectRef _tracker;
};

// The host's own identity, or the built-in module's in a form with the same attribute.
py::object identity_object(const identity::Identity& identity) {
  if (identity.host_object) return std::static_pointer_cast<ObjectRef>(identity.host_object)->get();
  return py::module_::import("types").attr("SimpleNamespace")(py::arg("agent_id") =
                                                                  text_to_python(identity.agent_id));
}

class HostSearchTracking final : public search_tracking::Module {
 public:
  explicit HostSearchTracking(const py::object& module) : _module(module) {}

  std::shared_ptr<search_tracking::SearchTracker> open(
      const std::string& data_dir, const std::optional<identity::Identity>& identity) override {
    const Locked locked;
    return calling_python([&] {
      const py::object make = _module.get().attr("SearchTracker");
      const py::object tracker =
          identity ? make(path_to_python(data_dir), py::arg("identity") = identity_object(*identity))
                   : make(path_to_python(data_dir));
      return std::make_shared<HostTracker>(tracker);
    });
  }

 private:
  const ObjectRef _module;
};

}  // namespace

void bind_transition_modules(py::module_& module) {
  const auto built_in = deployment::module_seam().current();
  module.attr("current_version") = built_in->current_version();
  module.def("compare_versions", [built_in](const std::string& first, const std::string& second) {
    return built_in->compare_versions(first, second);
  });
  module.def("check_update", [built_in](const std::string& current_version) {
    const auto newer = built_in->check_update(current_version);
    return newer ? py::object(text_to_python(*newer)) : py::none();
  });
  module.def("auto_update", [built_in](const std::string& version) {
    deployment::UpdateResult result;
    {
      const Unlocked unlocked;
      result = built_in->auto_update(version);
    }
    const py::object warning = result.warning ? py::object(text_to_python(*result.warning)) : py::none();
    return py::make_tuple(result.success.value_or(true), warning);
  });
  look_up_in_table<HostDeployment>(deployment::module_seam(), "tidalcrest.deployment",
                                   {"_CURRENT_VERSION", "_compare_versions", "check_update", "auto_update"});
  look_up_in_table<HostSearchTracking>(search_tracking::module_seam(), "tidalcrest.search_tracking",
                                       {"SearchTracker"});
}

}  // namespace tidalcrest::sync::python
