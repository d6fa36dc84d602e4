#include "backoff_module.hpp"

#include <atomic>
#include <chrono>

#include "blocking_call.hpp"
#include "documents.hpp"
#include "exceptions.hpp"
#include "interpreter.hpp"
#include "module_table.hpp"
#include "siblings/distribution/sync_backoff.hpp"

namespace tidalcrest::sync::python {
namespace {

using sync_backoff::Module;

constexpr const char* MODULE = "tidalcrest.distribution.sync_backoff";

py::dict fields_of(const BackoffContext& context) {
  py::dict fields;
  if (context.surface) fields["surface"] = text_to_python(*context.surface);
  if (context.data_dir) fields["data_dir"] = path_to_python(*context.data_dir);
  if (context.stop_requested) {
    fields["stop_requested"] = py::cpp_function([stop_requested = context.stop_requested] {
      const Unlocked unlocked;
      return stop_requested();
    });
  }
  return fields;
}

std::optional<std::string> text_field(const py::object& fields, const char* name) {
  const py::object value = fields.attr("get")(name);
  if (value.is_none()) return std::nullopt;
  return text_from_python(py::str(value));
}

BackoffContext context_of(const py::object& fields) {
  return {.surface = text_field(fields, "surface"),
          .data_dir = text_field(fields, "data_dir"),
          .stop_requested = stop_signal(fields.attr("get")("stop_requested"))};
}

// A context of the host's module, left on the thread that entered it.
class EnteredHostContext {
 public:
  explicit EnteredHostContext(const py::object& manager) : _manager(manager) { manager.attr("__enter__")(); }
  EnteredHostContext(const EnteredHostContext&) = delete;
  EnteredHostContext& operator=(const EnteredHostContext&) = delete;
  ~EnteredHostContext() {
    try {
      const Locked locked;
      calling_python([this] { _manager.get().attr("__exit__")(py::none(), py::none(), py::none()); });
    } catch (...) {
      // A context that does not end properly must not end the operation that ran in it.
    }
  }

 private:
  const ObjectRef _manager;
};

class HostModule final : public Module {
 public:
  explicit HostModule(const py::object& module) : _module(module) {}

  double delay_seconds(std::int64_t attempt_index) override {
    const Locked locked;
    return calling_python(
        [&] { return py::float_(_policy().attr("delay_seconds")(attempt_index)).cast<double>(); });
  }

  bool sleep(double wait_seconds, const std::function<void(double)>& sleep,
             const std::function<bool()>& stop_requested) override {
    const Locked locked;
    return calling_python([&] {
      // They hold what they call: a policy may keep them longer than this call.
      const py::cpp_function sleep_function([sleep](double seconds) {
        const Unlocked unlocked;
        sleep(seconds);
      });
      const py::cpp_function stop_function([stop_requested] {
        const Unlocked unlocked;
        return stop_requested();
      });
      const py::object slept = _policy().attr("sleep")(wait_seconds, py::arg("sleep") = sleep_function,
                                                       py::arg("stop_requested") = stop_function);
      return slept.cast<bool>();
    });
  }

  [[noreturn]] void raise_cancelled() override {
    const Locked locked;
    throw_as_failure(calling_python([&] { return _module.get().attr("SyncBackoffCancelled")(); }));
  }

  Document sync_backoff_event_fields(const std::string& surface, std::int64_t attempt, double wait_seconds,
                                     const std::string& reason, const std::string& file_path) override {
    const Locked locked;
    return calling_python([&] {
      const py::object fields = _module.get().attr("sync_backoff_event_fields")(
          py::arg("surface") = text_to_python(surface), py::arg("attempt") = attempt,
          py::arg("wait_seconds") = wait_seconds, py::arg("reason") = text_to_python(reason),
          py::arg("file_path") = path_to_python(file_path));
      return to_document(fields, "sync_backoff_event_fields");
    });
  }

  BackoffContext current_context() override {
    const Locked locked;
    return calling_python([&] { return context_of(_module.get().attr("current_context")()); });
  }

  std::shared_ptr<void> enter_context(BackoffContext context) override {
    const Locked locked;
    return calling_python([&]() -> std::shared_ptr<void> {
      return std::make_shared<EnteredHostContext>(
          _module.get().attr("backoff_context")(**fields_of(context)));
    });
  }

 private:
  py::object _policy() const { return _module.get().attr("SyncBackoffPolicy")(); }
  const ObjectRef _module;
};

class StopSignal {
 public:
  explicit StopSignal(const py::object& stop_requested) : _stop_requested(stop_requested) {}
  bool operator()() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    if (now < _expires.load()) return _answer;
    const Locked locked;
    const bool answer = calling_python([this] { return py::bool_(_stop_requested.get()()).cast<bool>(); });
    _answer = answer;
    _expires = now + std::chrono::milliseconds(20);
    return answer;
  }

 private:
  const ObjectRef _stop_requested;
  std::atomic<bool> _answer{false};
  std::atomic<std::chrono::steady_clock::duration> _expires{std::chrono::steady_clock::duration::min()};
};

// The built-in module, taken before anything may stand in its place.
const std::shared_ptr<Module>& built_in() {
  static const auto* const module = new std::shared_ptr<Module>(sync_backoff::module_seam().current());
  return *module;
}

class BuiltInContext {
 public:
  explicit BuiltInContext(const py::dict& fields) : _entered(built_in()->enter_context(context_of(fields))) {}
  void leave() { _entered.reset(); }

 private:
  std::shared_ptr<void> _entered;
};

bool built_in_sleep(double wait_seconds, const py::object& sleep, const py::object& stop_requested) {
  const ObjectRef sleep_function(sleep);
  const auto stop = stop_requested.is_none() ? [] { return false; } : stop_signal(stop_requested);
  return without_gil([&] {
    return built_in()->sleep(
        wait_seconds,
        [&](double seconds) {
          const Locked locked;
          calling_python([&] { sleep_function.get()(seconds); });
        },
        stop);
  });
}

}  // namespace

std::function<bool()> stop_signal(const py::object& stop_requested) {
  if (PyCallable_Check(stop_requested.ptr()) == 0) return {};
  return [signal = std::make_shared<StopSignal>(stop_requested)] { return (*signal)(); };
}

bool backoff_module_is_replaced() {
  return dynamic_cast<const HostModule*>(sync_backoff::module_seam().current().get()) != nullptr;
}

void bind_backoff(py::module_& module) {
  built_in();
  look_up_in_table<HostModule>(sync_backoff::module_seam(), MODULE,
                               {"SyncBackoffPolicy", "SyncBackoffCancelled", "backoff_context",
                                "current_context", "sync_backoff_event_fields"});
  py::class_<BuiltInContext>(module, "BackoffContext")
      .def(py::init<py::dict>())
      .def("leave", &BuiltInContext::leave);
  module.def("backoff_delay_seconds",
             [](std::int64_t attempt_index) { return built_in()->delay_seconds(attempt_index); });
  module.def("backoff_sleep", &built_in_sleep);
  module.def("backoff_current_context", [] { return fields_of(built_in()->current_context()); });
}

}  // namespace tidalcrest::sync::python
