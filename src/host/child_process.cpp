#include "host/child_process.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>

#include "host/failures.hpp"
#include "host/text.hpp"

extern char** environ;

namespace tidalcrest::sync {
namespace {

constexpr std::size_t CAPTURE_LIMIT_BYTES = 1 << 20;
constexpr const char* DEFAULT_SEARCH_PATH = "/bin:/usr/bin";  // of a host without PATH
constexpr int STOP_CHECK_MILLISECONDS = 100;
constexpr int END_CHECK_MILLISECONDS = 2;  // between the end of the output and the end of the child

class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int number) noexcept : _number(number) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() { reset(); }
  int number() const noexcept { return _number; }
  void reset(int number = -1) noexcept {
    if (_number >= 0) ::close(_number);
    _number = number;
  }

 private:
  int _number = -1;
};

// A pipe whose ends no other child inherits.
struct Pipe {
  Descriptor read_end;
  Descriptor write_end;
  void open() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) throw_os_error(errno, "pipe");
    read_end.reset(ends[0]);
    write_end.reset(ends[1]);
  }
};

// A second descriptor of the same file, clear of the standard three: those the child gets anew, one after
// the other, and a host may have closed its own.
int above_standard(int number) {
  const int copy = fcntl(number, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  if (copy < 0) throw_os_error(errno, "descriptor for a child process");
  return copy;
}

class SpawnSettings {
 public:
  SpawnSettings(int output, int error) {
    posix_spawn_file_actions_init(&_actions);
    posix_spawn_file_actions_addopen(&_actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&_actions, output, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&_actions, error, STDERR_FILENO);
    // What the host opened without close-on-exec (a lock, a socket) must not live on in a child.
    posix_spawn_file_actions_addclosefrom_np(&_actions, STDERR_FILENO + 1);
    // The host may block signals or ignore a broken pipe; the child starts with neither.
    posix_spawnattr_init(&_attributes);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&_attributes, &none);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_setsigdefault(&_attributes, &defaults);
    posix_spawnattr_setflags(&_attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  }
  SpawnSettings(const SpawnSettings&) = delete;
  SpawnSettings& operator=(const SpawnSettings&) = delete;
  ~SpawnSettings() {
    posix_spawnattr_destroy(&_attributes);
    posix_spawn_file_actions_destroy(&_actions);
  }

  pid_t spawn(const std::vector<std::string>& arguments) const {
    std::vector<char*> argv;
    for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    pid_t pid = -1;
    const int failed = posix_spawnp(&pid, argv[0], &_actions, &_attributes, argv.data(), environ);
    if (failed != 0) throw_os_error(failed, "start of " + arguments.front());
    return pid;
  }

 private:
  posix_spawn_file_actions_t _actions{};
  posix_spawnattr_t _attributes{};
};

pid_t start(const ChildCommand& command, const Pipe& output, const Pipe& error) {
  const Descriptor child_output(
      above_standard(command.output_descriptor.value_or(output.write_end.number())));
  const Descriptor child_error(above_standard(error.write_end.number()));
  return SpawnSettings(child_output.number(), child_error.number()).spawn(command.arguments);
}

// A started child. Until it has been waited for, its id belongs to nobody else, so it can be ended by id.
class Child {
 public:
  explicit Child(pid_t pid) noexcept : _pid(pid) {}
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() {
    kill();
    wait();
  }

  void kill() const noexcept {
    if (_pid > 0) ::kill(_pid, SIGKILL);
  }

  void wait() noexcept {
    while (!_ended(0)) continue;
  }
  bool has_ended() noexcept { return _ended(WNOHANG); }
  int exit_code() const noexcept { return _exit_code; }
  bool exit_code_is_lost() const noexcept { return _exit_code_is_lost; }

 private:
  bool _ended(int options) noexcept {
    if (_pid <= 0) return true;
    int status = 0;
    const pid_t ended = waitpid(_pid, &status, options);
    if (ended == 0 || (ended < 0 && errno == EINTR)) return false;
    _pid = -1;
    // A host that ignores SIGCHLD, or waits for every child itself, leaves no status behind.
    _exit_code_is_lost = ended < 0;
    _exit_code = ended < 0 ? -1 : WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
    return true;
  }

  pid_t _pid;
  int _exit_code = 0;
  bool _exit_code_is_lost = false;
};

// Takes what is there; gives false at the end.
bool drain(const Descriptor& from, std::string& into) {
  std::array<char, 16384> buffer{};
  const ssize_t count = ::read(from.number(), buffer.data(), buffer.size());
  if (count < 0) return errno == EINTR || errno == EAGAIN;
  const auto room = CAPTURE_LIMIT_BYTES - into.size();
  into.append(buffer.data(), std::min(static_cast<std::size_t>(count), room));
  return count > 0;
}

}  // namespace

ChildResult run_child(const ChildCommand& command) {
  if (command.arguments.empty()) throw OSError("start of a child process: no program named");
  Pipe output;
  Pipe error;
  if (!command.output_descriptor) output.open();
  error.open();
  Child child(start(command, output, error));
  output.write_end.reset();
  error.write_end.reset();

  ChildResult result;
  while (output.read_end.number() >= 0 || error.read_end.number() >= 0 || !child.has_ended()) {
    // poll passes over negative descriptors; with none left it is the pause between two looks at the child.
    std::array<pollfd, 2> waited{pollfd{output.read_end.number(), POLLIN, 0},
                                 pollfd{error.read_end.number(), POLLIN, 0}};
    const bool has_output = waited[0].fd >= 0 || waited[1].fd >= 0;
    const int pause = has_output ? STOP_CHECK_MILLISECONDS : END_CHECK_MILLISECONDS;
    if (poll(waited.data(), waited.size(), pause) < 0 && errno != EINTR) {
      throw_os_error(errno, "poll");
    }
    if (command.stop_requested && command.stop_requested()) {
      child.kill();
      child.wait();
      result.stopped = true;
      break;
    }
    if (waited[0].revents != 0 && !drain(output.read_end, result.standard_output)) output.read_end.reset();
    if (waited[1].revents != 0 && !drain(error.read_end, result.standard_error)) error.read_end.reset();
  }
  result.exit_code = child.exit_code();
  result.exit_code_is_lost = child.exit_code_is_lost();
  return result;
}

std::optional<std::string> find_executable(const std::string& name) {
  const char* const search_path = std::getenv("PATH");
  for (const auto& directory : text::split(search_path != nullptr ? search_path : DEFAULT_SEARCH_PATH, ":")) {
    const std::string candidate = (directory.empty() ? "." : directory) + "/" + name;
    struct stat found {};
    if (::stat(candidate.c_str(), &found) == 0 && S_ISREG(found.st_mode) &&
        ::access(candidate.c_str(), X_OK) == 0) {
      return candidate;
    }
  }
  return std::nullopt;
}

}  // namespace tidalcrest::sync
