#pragma once

#include <csignal>

namespace tidalcrest::origin {

/// SIGINT and SIGTERM as something to wait for. Blocks them in the calling thread and in those that it
/// starts.
class ShutdownSignal {
 public:
  ShutdownSignal() {
    sigemptyset(&_signals);
    sigaddset(&_signals, SIGINT);
    sigaddset(&_signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &_signals, nullptr);
  }
  void wait() const {
    int received = 0;
    sigwait(&_signals, &received);
  }

 private:
  sigset_t _signals;
};

}  // namespace tidalcrest::origin
