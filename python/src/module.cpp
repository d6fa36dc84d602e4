#include <pybind11/pybind11.h>

#include "bindings.hpp"
#include "exceptions.hpp"
#include "host/endpoint.hpp"
#include "interpreter.hpp"
#include "logging.hpp"
#include "tidalcrest/sync/constants.hpp"

namespace tidalcrest::sync::python {
namespace {

void bind_constants(py::module_& module) {
  module.attr("SHUFFLE_KEY_GENERATION_MARKET_ERA_V1") = SHUFFLE_KEY_GENERATION_MARKET_ERA_V1;
  module.attr("RETIRED_SHUFFLE_KEY_GENERATION_ERA_ONLY_V1") = RETIRED_SHUFFLE_KEY_GENERATION_ERA_ONLY_V1;
  module.attr("DEFAULT_SHUFFLE_KEY_GENERATION") = DEFAULT_SHUFFLE_KEY_GENERATION;
  module.attr("SHUFFLE_KEY_GENERATION_HEADER") = SHUFFLE_KEY_GENERATION_HEADER;
  module.attr("SHUFFLE_KEY_SOURCE_HEADER") = SHUFFLE_KEY_SOURCE_HEADER;
  module.attr("SYNC_FOUND_PAYLOAD_LATENCY_BOUND_SECONDS") = SYNC_FOUND_PAYLOAD_LATENCY_BOUND_SECONDS;
}

// The interpreter's own hooks for its end and for forks.
void bind_process_hooks(py::module_& module) {
  module.def("_sync_endpoint_from_url", &_sync_endpoint_from_url);
  py::module_::import("atexit").attr("register")(py::cpp_function(&shut_down));
  py::module_::import("os").attr("register_at_fork")(py::arg("after_in_child") =
                                                         py::cpp_function([] { after_fork_in_child(); }));
}

}  // namespace
}  // namespace tidalcrest::sync::python

PYBIND11_MODULE(_native, module) {
  namespace python = tidalcrest::sync::python;
  python::register_exceptions();
  module.attr("__version__") = TIDALCREST_VERSION;
  python::bind_constants(module);
  python::bind_manifest(module);
  python::bind_pin(module);
  python::bind_manager(module);
  python::bind_era_thread(module);
  python::bind_rotation(module);
  python::bind_siblings(module);
  python::bind_process_hooks(module);
  python::log_to_python();
}
