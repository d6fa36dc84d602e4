#include "blocking_call.hpp"

#include <pybind11/pybind11.h>

#include <atomic>

#include "transport/backoff.hpp"

namespace tidalcrest::sync::python {
namespace {

namespace py = pybind11;

std::atomic<unsigned> interrupts{0};
struct sigaction interpreter_action;  // written by the main thread before the handler below is in place
bool listening = false;               // guarded by the GIL

void on_interrupt(int number) {
  ++interrupts;
  interpreter_action.sa_handler(number);
}

bool is_main_thread() {
  const auto threading = py::module_::import("threading");
  return threading.attr("get_ident")().equal(threading.attr("main_thread")().attr("ident"));
}

bool has_default_handler() {
  const auto signal = py::module_::import("signal");
  return signal.attr("getsignal")(SIGINT).is(signal.attr("default_int_handler"));
}

// False also inside another call of the main thread, whose scope listens for both.
bool listen() {
  if (listening || !is_main_thread() || !has_default_handler()) return false;
  if (sigaction(SIGINT, nullptr, &interpreter_action) != 0) return false;
  if ((interpreter_action.sa_flags & SA_SIGINFO) != 0) return false;
  struct sigaction action = interpreter_action;
  action.sa_handler = on_interrupt;
  listening = sigaction(SIGINT, &action, nullptr) == 0;
  return listening;
}

}  // namespace

InterruptScope::InterruptScope() : _interrupts_before(interrupts), _listens(listen()) {}

InterruptScope::~InterruptScope() {
  if (!_listens) return;
  sigaction(SIGINT, &interpreter_action, nullptr);
  listening = false;
}

BackoffContext InterruptScope::context() const {
  BackoffContext context = _current_sync_backoff_context();
  context.stop_requested = [outer = std::move(context.stop_requested), before = _interrupts_before,
                            listens = _listens] {
    return stopping() || (listens && interrupts != before) || (outer && outer());
  };
  return context;
}

void InterruptScope::raise_if_interrupted() const {
  if (interrupts != _interrupts_before && PyErr_CheckSignals() != 0) throw py::error_already_set();
}

}  // namespace tidalcrest::sync::python
