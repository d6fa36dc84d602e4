#include "interrupt.hpp"

#include <atomic>
#include <csignal>

namespace tidalcrest::cli {
namespace {

std::atomic<bool> stop_requested{false};
static_assert(std::atomic<bool>::is_always_lock_free);  // the handler may touch nothing else

void on_signal(int number) {
  if (stop_requested.exchange(true)) {
    std::signal(number, SIG_DFL);
    std::raise(number);
  }
}

}  // namespace

void install_interrupt_handler() {
  struct sigaction action {};
  action.sa_handler = on_signal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

bool interrupted() noexcept { return stop_requested.load(); }

}  // namespace tidalcrest::cli
