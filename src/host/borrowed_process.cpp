#include "host/borrowed_process.hpp"

#include <sched.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstddef>
#include <memory>

#include "host/signals_blocked.hpp"

namespace tidalcrest::sync {
namespace {

constexpr std::size_t STACK_BYTES = 64 * 1024;
constexpr std::size_t STACK_ALIGNMENT = 16;

int run_body(void* body) { return (*static_cast<const std::function<int()>*>(body))(); }

}  // namespace

std::optional<int> in_borrowed_process(const std::function<int()>& body) {
  const auto stack = std::make_unique_for_overwrite<std::byte[]>(STACK_BYTES + STACK_ALIGNMENT);
  void* top = stack.get() + STACK_BYTES;
  std::size_t room = 2 * STACK_ALIGNMENT;
  std::align(STACK_ALIGNMENT, STACK_ALIGNMENT, top, room);
  // A child without an exit signal: only who asks for its kind gets it from a wait.
  constexpr int FLAGS = CLONE_VM | CLONE_VFORK;
  const SignalsBlocked blocked;
  const pid_t pid = ::clone(run_body, top, FLAGS, const_cast<std::function<int()>*>(&body));
  if (pid < 0) return std::nullopt;
  int status = 0;
  while (::waitpid(pid, &status, __WALL) < 0) {
    if (errno != EINTR) return std::nullopt;
  }
  return WIFEXITED(status) ? std::optional(WEXITSTATUS(status)) : std::nullopt;
}

}  // namespace tidalcrest::sync
