#include "sdk_modules.hpp"

#include <optional>

#include "backoff_module.hpp"
#include "bindings.hpp"
#include "documents.hpp"
#include "exceptions.hpp"
#include "interpreter.hpp"
#include "module_table.hpp"
#include "siblings/auth/auth.hpp"
#include "siblings/auth/identity.hpp"
#include "siblings/catalog/reason_descriptions.hpp"
#include "siblings/functions/vocabulary.hpp"
#include "siblings/onboarding/agent_onboarding.hpp"
#include "siblings/security/transport.hpp"
#include "siblings/telemetry/logging_style.hpp"

namespace tidalcrest::sync::python {
namespace {

// The side that all adaptors share: the host's module, and calls into it.
class HostModule {
 public:
  explicit HostModule(const py::object& module) : _module(module) {}

 protected:
  template <class Call>
  auto with_module(Call call) const {
    const Locked locked;
    return calling_python([&] { return call(_module.get()); });
  }

 private:
  const ObjectRef _module;
};

class HostAuth final : public auth::Module, HostModule {
 public:
  using HostModule::HostModule;
  void notify_era_change(std::int64_t era_number) override {
    with_module([&](const py::object& module) { module.attr("notify_era_change")(era_number); });
  }
};

class HostIdentity final : public identity::Module, HostModule {
 public:
  using HostModule::HostModule;
  identity::Identity resolve_identity_for_data_dir(const std::string& data_dir) override {
    return with_module([&](const py::object& module) {
      const py::object found = module.attr("resolve_identity_for_data_dir")(path_to_python(data_dir));
      return identity::Identity{.agent_id = text_from_python(py::str(py::getattr(found, "agent_id", found))),
                                .host_object = std::make_shared<ObjectRef>(found)};
    });
  }
};

class HostOnboarding final : public agent_onboarding::Module, HostModule {
 public:
  using HostModule::HostModule;
  void update_nudge(const std::string& occasion, std::int64_t new_era_number,
                    std::optional<std::int64_t> previous_era_number) override {
    with_module([&](const py::object& module) {
      module.attr("update_nudge")(text_to_python(occasion), py::arg("new_era_number") = new_era_number,
                                  py::arg("previous_era_number") = optional_integer(previous_era_number));
    });
  }
};

class HostReasons final : public reason_descriptions::Module, HostModule {
 public:
  using HostModule::HostModule;
  Document describe_reason(const std::string& reason_class,
                           const reason_descriptions::ReasonDetails& details) override {
    return with_module([&](const py::object& module) {
      const py::object described = module.attr("describe_reason")(
          text_to_python(reason_class), py::arg("recovery") = to_python(details.recovery),
          py::arg("error_code") = to_python(details.error_code),
          py::arg("dependency") = to_python(details.dependency),
          py::arg("reason") = to_python(details.reason));
      return to_document(described, "describe_reason");
    });
  }
};

class HostLoggingStyle final : public logging_style::Module, HostModule {
 public:
  using HostModule::HostModule;
  void log_library_surface_event(const std::string& title, const std::string& level,
                                 const logging_style::SurfaceEvent& event) override {
    with_module([&](const py::object& module) {
      module.attr("log_library_surface_event")(
          text_to_python(title), text_to_python(level),
          py::arg("sub_service") = text_to_python(event.sub_service),
          py::arg("component") = text_to_python(event.component),
          py::arg("metadata") = to_python(event.metadata),
          py::arg("source_function") = text_to_python(event.source_function),
          py::arg("source_file") = text_to_python(event.source_file),
          py::arg("source_line") = event.source_line);
    });
  }
};

class HostFunctionsVocabulary final : public FunctionsVocabularyModule, HostModule {
 public:
  using HostModule::HostModule;
  Document merge_functions_vocabulary(const Document& functions, const Document& vocabulary,
                                      const std::string& named_universe,
                                      std::int64_t expected_era_number) const override {
    return with_module([&](const py::object& module) {
      const py::object merged = module.attr("merge_functions_vocabulary")(
          py::arg("functions") = to_python(functions), py::arg("vocabulary") = to_python(vocabulary),
          py::arg("named_universe") = text_to_python(named_universe),
          py::arg("expected_era_number") = expected_era_number);
      return to_document(merged, "merge_functions_vocabulary");
    });
  }
};

// An SSL context of the interpreter means nothing to the client of the core; its trust roots can be named in
// attributes of the result.
class HostTransportSecurity final : public security::Module, HostModule {
 public:
  using HostModule::HostModule;
  void validate_bearer_transport_url(const std::string& url) override {
    with_module(
        [&](const py::object& module) { module.attr("validate_bearer_transport_url")(text_to_python(url)); });
  }
  security::SslContext tidalcrest_ssl_context() override {
    return with_module([&](const py::object& module) {
      const py::object make = py::getattr(module, "tidalcrest_ssl_context", py::none());
      if (make.is_none()) return security::SslContext{};
      const py::object context = make();
      return security::SslContext{.ca_file = _path(context, "ca_file"),
                                  .ca_directory = _path(context, "ca_directory")};
    });
  }

 private:
  static std::optional<std::string> _path(const py::object& context, const char* name) {
    const py::object value = py::getattr(context, name, py::none());
    if (!PyUnicode_Check(value.ptr())) return std::nullopt;
    return text_from_python(value);
  }
};

}  // namespace

py::object optional_integer(const std::optional<std::int64_t>& value) {
  return value ? py::object(py::int_(*value)) : py::none();
}

void bind_siblings(py::module_& module) {
  bind_backoff(module);
  bind_transition_modules(module);
  const auto reasons = reason_descriptions::module_seam().current();
  module.def("describe_reason",
             [reasons](const std::string& reason_class, const py::object& recovery,
                       const py::object& error_code, const py::object& dependency, const py::object& reason) {
               return to_python(reasons->describe_reason(reason_class,
                                                         {.recovery = to_document(recovery, "recovery"),
                                                          .error_code = to_document(error_code, "error_code"),
                                                          .dependency = to_document(dependency, "dependency"),
                                                          .reason = to_document(reason, "reason")}));
             });
  const auto authentication = auth::module_seam().current();
  module.def("notify_era_change",
             [authentication](std::int64_t era_number) { authentication->notify_era_change(era_number); });

  look_up_in_table<HostAuth>(auth::module_seam(), "tidalcrest.auth", {"notify_era_change"});
  look_up_in_table<HostIdentity>(identity::module_seam(), "tidalcrest.auth_onboarding.identity",
                                 {"resolve_identity_for_data_dir"});
  look_up_in_table<HostOnboarding>(agent_onboarding::module_seam(), "tidalcrest.agent_onboarding",
                                   {"update_nudge"});
  look_up_in_table<HostReasons>(reason_descriptions::module_seam(), "tidalcrest.catalog.reason_descriptions",
                                {"describe_reason"});
  look_up_in_table<HostLoggingStyle>(logging_style::module_seam(), "tidalcrest.telemetry.logging_style",
                                     {"log_library_surface_event"});
  look_up_in_table<HostFunctionsVocabulary>(functions_vocabulary_module(), "tidalcrest.functions.vocabulary",
                                            {"merge_functions_vocabulary"});
  look_up_in_table<HostTransportSecurity>(security::module_seam(), "tidalcrest.security.transport",
                                          {"validate_bearer_transport_url"});
}

}  // namespace tidalcrest::sync::python
