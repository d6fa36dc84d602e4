#include "host/child_process.hpp"

#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>

#include "host/child_launch.hpp"
#include "host/descriptor.hpp"
#include "host/failures.hpp"
#include "host/text.hpp"

namespace tidalcrest::sync {
namespace {

constexpr std::size_t CAPTURE_LIMIT_BYTES = 1 << 20;
constexpr const char* DEFAULT_SEARCH_PATH = "/bin:/usr/bin";  // of a host without PATH
constexpr int STOP_CHECK_MILLISECONDS = 100;
constexpr int END_CHECK_MILLISECONDS = 2;  // between the end of the output and the end of the child

pid_t start(const ChildCommand& command, const Pipe& output, const Pipe& error) {
  auto arguments = command.arguments;
  if (arguments.front().find('/') == std::string::npos) {
    auto program = find_executable(arguments.front());
    if (!program) throw_os_error(ENOENT, "start of " + arguments.front());
    arguments.front() = *std::move(program);
  }
  return launch_child(arguments, command.output_descriptor.value_or(output.write_end.get()),
                      error.write_end.get(), command.ends_with_caller, command.most_file_bytes);
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
  const ssize_t count = ::read(from.get(), buffer.data(), buffer.size());
  if (count < 0) return errno == EINTR || errno == EAGAIN;
  const auto room = CAPTURE_LIMIT_BYTES - into.size();
  into.append(buffer.data(), std::min(static_cast<std::size_t>(count), room));
  return count > 0;
}

}  // namespace

ChildResult run_child(const ChildCommand& command) {
  if (command.arguments.empty()) throw OSError("start of a child process: no program named");
  Pipe output;
  if (!command.output_descriptor) output = open_pipe();
  Pipe error = open_pipe();
  Child child(start(command, output, error));
  output.write_end.reset();
  error.write_end.reset();

  ChildResult result;
  while (output.read_end.get() >= 0 || error.read_end.get() >= 0 || !child.has_ended()) {
    // poll passes over negative descriptors; with none left it is the pause between two looks at the child.
    std::array<pollfd, 2> waited{pollfd{output.read_end.get(), POLLIN, 0},
                                 pollfd{error.read_end.get(), POLLIN, 0}};
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
