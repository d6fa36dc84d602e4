// The step from `vfork` to `execve`. The child borrows the memory of this process until then, so it makes
// system calls and nothing else, and no handler of the host may run in it.
#include "host/child_launch.hpp"

#include <fcntl.h>
#include <linux/close_range.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "host/failures.hpp"

extern char** environ;

namespace tidalcrest::sync {
namespace {

constexpr int FIRST_OTHER_DESCRIPTOR = STDERR_FILENO + 1;
constexpr int NOT_STARTED_EXIT_CODE = 127;
constexpr rlim_t MOST_DESCRIPTORS = 65536;  // looked at one by one where the kernel has no call for a range

struct Launch {
  char* const* argv;
  int output;
  int error;
  int failure_report;  // takes the error number when there is no program to go over to
  pid_t parent;
  bool ends_with_caller;
  std::int64_t most_file_bytes;
};

// Blocks every signal of this thread for its lifetime.
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

void reset_signals() noexcept {
  struct sigaction by_default {};
  by_default.sa_handler = SIG_DFL;
  for (int number = 1; number < NSIG; ++number) {
    struct sigaction current {};
    if (::sigaction(number, nullptr, &current) != 0) continue;
    if (current.sa_handler != SIG_IGN || number == SIGPIPE) ::sigaction(number, &by_default, nullptr);
  }
  sigset_t none;
  sigemptyset(&none);
  ::pthread_sigmask(SIG_SETMASK, &none, nullptr);
}

// A host may have opened a lock or a socket without close-on-exec; it must not live on in a child.
void close_others_on_exec() noexcept {
  if (::close_range(FIRST_OTHER_DESCRIPTOR, ~0U, CLOSE_RANGE_CLOEXEC) == 0) return;
  rlimit limit{};
  const rlim_t end = ::getrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_cur : MOST_DESCRIPTORS;
  for (int number = FIRST_OTHER_DESCRIPTOR; number < static_cast<int>(std::min(end, MOST_DESCRIPTORS));
       ++number)
    ::fcntl(number, F_SETFD, FD_CLOEXEC);
}

bool set_standard_descriptors(const Launch& launch) noexcept {
  const int nothing = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (nothing < 0) return false;
  // Without an input of its own the host may have got number 0 here already.
  const bool has_input = nothing == STDIN_FILENO ? ::fcntl(nothing, F_SETFD, 0) == 0
                                                 : ::dup2(nothing, STDIN_FILENO) == STDIN_FILENO;
  return has_input && ::dup2(launch.output, STDOUT_FILENO) == STDOUT_FILENO &&
         ::dup2(launch.error, STDERR_FILENO) == STDERR_FILENO;
}

// Past the bound a write fails. The signal that comes with it would end the program before it can say so.
void bound_files(std::int64_t most_bytes) noexcept {
  rlimit limit{};
  if (::getrlimit(RLIMIT_FSIZE, &limit) != 0) return;
  limit.rlim_cur = std::min(limit.rlim_cur, static_cast<rlim_t>(most_bytes));
  ::setrlimit(RLIMIT_FSIZE, &limit);
  ::signal(SIGXFSZ, SIG_IGN);
}

[[noreturn]] void become(const Launch& launch) noexcept {
  if (launch.ends_with_caller) {
    // The parent may die before it is asked for a death signal; a system that refuses it has none.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != launch.parent) ::_exit(NOT_STARTED_EXIT_CODE);
  }
  if (set_standard_descriptors(launch)) {
    close_others_on_exec();
    reset_signals();
    if (launch.most_file_bytes > 0) bound_files(launch.most_file_bytes);
    ::execve(launch.argv[0], launch.argv, environ);
  }
  const int failure = errno;
  static_cast<void>(::write(launch.failure_report, &failure, sizeof failure));
  ::_exit(NOT_STARTED_EXIT_CODE);
}

// 0 when the program has been started: its descriptor of the report is closed then.
int reported_failure(int report) noexcept {
  int failure = 0;
  ssize_t count = 0;
  do {
    count = ::read(report, &failure, sizeof failure);
  } while (count < 0 && errno == EINTR);
  return count == sizeof failure ? failure : 0;
}

void wait_for(pid_t pid) noexcept {
  while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) continue;
}

// A second descriptor of the same file, clear of the standard three: those the child gets anew, one after
// the other, and a host may have closed its own.
Descriptor above_standard(int number) {
  Descriptor copy(::fcntl(number, F_DUPFD_CLOEXEC, FIRST_OTHER_DESCRIPTOR));
  if (!copy) throw_os_error(errno, "descriptor for a child process");
  return copy;
}

}  // namespace

Pipe open_pipe() {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) throw_os_error(errno, "pipe");
  return {Descriptor(ends[0]), Descriptor(ends[1])};
}

pid_t launch_child(const std::vector<std::string>& arguments, int output, int error, bool ends_with_caller,
                   std::int64_t most_file_bytes) {
  std::vector<char*> argv;
  argv.reserve(arguments.size() + 1);
  for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  const Descriptor child_output = above_standard(output);
  const Descriptor child_error = above_standard(error);
  Pipe report = open_pipe();
  Descriptor child_report = above_standard(report.write_end.get());
  report.write_end.reset();
  const Launch launch{argv.data(), child_output.get(), child_error.get(), child_report.get(),
                      ::getpid(),  ends_with_caller,   most_file_bytes};
  pid_t pid = -1;
  int failure = 0;
  {
    const SignalsBlocked blocked;
    pid = ::vfork();
    if (pid == 0) become(launch);
    failure = pid < 0 ? errno : 0;
  }
  child_report.reset();
  if (pid > 0) {
    failure = reported_failure(report.read_end.get());
    if (failure != 0) wait_for(pid);
  }
  if (failure != 0) throw_os_error(failure, "start of " + arguments.front());
  return pid;
}

}  // namespace tidalcrest::sync
