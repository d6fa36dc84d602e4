#include "siblings/distribution/file_lock.hpp"

#include <sys/file.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>

#include "host/failures.hpp"
#include "host/log.hpp"
#include "siblings/distribution/disk_calls.hpp"
#include "siblings/distribution/sync_backoff.hpp"

namespace tidalcrest::sync {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// A blocking call would not hear the stop signal, so the lock is asked for at intervals that grow from the
// first to the second.
constexpr auto FIRST_PAUSE = 1ms;
constexpr auto LONGEST_PAUSE = 25ms;

bool try_lock(int descriptor, int operation, const std::string& what) {
  while (disk_calls().lock(descriptor, operation | LOCK_NB) != 0) {
    if (errno == EWOULDBLOCK) return false;
    if (errno != EINTR) throw_os_error(errno, what);
  }
  return true;
}

}  // namespace

void lock_opened_file(int descriptor, bool exclusive, const std::string& what) {
  const int operation = exclusive ? LOCK_EX : LOCK_SH;
  if (try_lock(descriptor, operation, what)) return;

  log::debug("waiting for %s", what);
  const auto started = Clock::now();
  const auto stop_check = sync_backoff::stop_check_of_this_thread();
  auto pause = FIRST_PAUSE;
  do {
    stop_check();
    std::this_thread::sleep_for(pause);
    pause = std::min(pause * 2, LONGEST_PAUSE);
  } while (!try_lock(descriptor, operation, what));
  log::debug("got %s after %.3f s", what, std::chrono::duration<double>(Clock::now() - started).count());
}

}  // namespace tidalcrest::sync
