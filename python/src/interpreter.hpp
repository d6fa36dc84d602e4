#pragma once

#include <Python.h>

#include <functional>
#include <memory>

/// The interpreter as threads of the sync module meet it.
///
/// Three rules keep the module free of deadlocks. Whoever may wait for a lock, a thread or the network lets
/// go of the GIL first (`Unlocked`). A callback takes it for its own duration (`Locked`). Letting go of an
/// object never waits for it (`ObjectRef`).
///
/// At exit the interpreter goes while threads of ours may still run. `stopping()` ends waits and transfers of
/// every call, and a daemon thread that comes back from one stays away for good; then the door closes: no
/// callback enters any more, and those inside are waited for.
namespace tidalcrest::sync::python {

/// Holds the GIL on a thread that may or may not hold it already. Throws `RuntimeError` once the door is
/// closed.
class Locked {
 public:
  Locked();
  Locked(const Locked&) = delete;
  Locked& operator=(const Locked&) = delete;
  ~Locked();

 private:
  PyGILState_STATE _state;
};

/// Lets go of the GIL, which the thread must hold, and takes it back at the end.
class Unlocked {
 public:
  Unlocked() : _thread(PyEval_SaveThread()) {}
  Unlocked(const Unlocked&) = delete;
  Unlocked& operator=(const Unlocked&) = delete;
  ~Unlocked();

 private:
  PyThreadState* const _thread;
};

/// Whether the interpreter is on its way out: calls that are under way should end soon.
bool stopping() noexcept;
/// Notes the process that something is made in. In a fork of it, the threads and locks that belong to it are
/// the parent's, and it is left as it is, for good.
class MadeHere {
 public:
  MadeHere() noexcept;
  bool is_here() const noexcept;

 private:
  unsigned _forks;
};

/// What has to stop before the interpreter goes. `stop` is called without the GIL, and not at all once
/// `owner` is gone. Needs the GIL.
void stop_at_exit(std::weak_ptr<void> owner, std::function<void()> stop);

/// Called once at exit, with the GIL: stops all that `stop_at_exit` names, for a bounded time, and closes the
/// door.
void shut_down();
/// Called in the child of a fork, with the GIL: forgets what the parent has, so that the child may begin
/// anew.
void after_fork_in_child() noexcept;

}  // namespace tidalcrest::sync::python
