#pragma once

#include <csignal>

#include "interpreter.hpp"
#include "module_table.hpp"
#include "tidalcrest/sync/backoff.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync::python {

/// Makes Ctrl-C end what the main thread waits for, in the scope of one call: waits and transfers look at the
/// stop signal of `context()`, and the interpreter's own handler, which has been told, then raises
/// `KeyboardInterrupt`. Another handler than the interpreter's default one is left alone. Made and destroyed
/// with the GIL.
class InterruptScope {
 public:
  InterruptScope();
  InterruptScope(const InterruptScope&) = delete;
  InterruptScope& operator=(const InterruptScope&) = delete;
  ~InterruptScope();
  /// The calling thread's context, with a stop signal that tells of an interrupt and of the interpreter's
  /// end.
  BackoffContext context() const;
  /// Throws what the signal's handler raised.
  void raise_if_interrupted() const;

 private:
  const unsigned _interrupts_before;
  const bool _listens;
};

/// Runs what may wait, without the GIL.
template <class Work>
auto without_gil(Work work) {
  note_python_runs();
  const InterruptScope interrupt;
  try {
    const bool has_own_context = backoff_module_is_replaced();
    const Unlocked unlocked;
    if (has_own_context) return work();
    const ScopedBackoffContext context(interrupt.context());
    return work();
  } catch (const SyncBackoffCancelled&) {
    interrupt.raise_if_interrupted();
    throw;
  }
}

}  // namespace tidalcrest::sync::python
