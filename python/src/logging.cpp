#include "logging.hpp"

#include "documents.hpp"
#include "exceptions.hpp"
#include "interpreter.hpp"
#include "tidalcrest/sync/log.hpp"

namespace tidalcrest::sync::python {
namespace {

int python_level(LogLevel level) {
  switch (level) {
    case LogLevel::debug:
      return 10;
    case LogLevel::info:
      return 20;
    case LogLevel::warning:
      return 30;
    case LogLevel::error:
      break;
  }
  return 40;
}

void deliver(const LogRecord& record) {
  const py::object extra = record.extra != nullptr ? to_python(*record.extra) : py::none();
  py::object exception = as_python_exception(record.exception);
  if (!exception) exception = py::none();
  py::module_::import("tidalcrest.sync._logging")
      .attr("deliver")(python_level(record.level), text_to_python(record.message), extra, exception);
}

// A handler that raises is the host's affair: it is reported there, and the operation that spoke goes on. An
// interrupt that came while it ran is kept for later.
void write_record(const LogRecord& record) {
  const Locked locked;
  try {
    deliver(record);
  } catch (py::error_already_set& raised) {
    const bool interrupted = raised.matches(PyExc_KeyboardInterrupt);
    raised.restore();
    if (interrupted) {
      PyErr_Clear();
      PyErr_SetInterrupt();
    } else {
      PyErr_WriteUnraisable(nullptr);
    }
  }
}

}  // namespace

void log_to_python() { set_log_sink(write_record); }

}  // namespace tidalcrest::sync::python
