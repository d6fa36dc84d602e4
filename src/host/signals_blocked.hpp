#pragma once

#include <pthread.h>
#include <signal.h>

namespace tidalcrest::sync {

/// Blocks every signal of this thread for its lifetime: no handler of the host runs meanwhile, nor in a child
/// that borrows this process's memory.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &_before);
  }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &_before, nullptr); }

 private:
  sigset_t _before;
};

}  // namespace tidalcrest::sync
