#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "build_paths.hpp"
#include "support/sync_fixture.hpp"

namespace tidalcrest::sync::testing {

/// The command line in a process of its own, its output kept. Killed by the destructor when it still runs.
class Command {
 public:
  explicit Command(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), TIDALCREST_SYNC_PROGRAM);
    std::vector<char*> argv;
    for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    const std::string out = _files.path("out"), err = _files.path("err");
    _pid = ::fork();
    if (_pid != 0) return;
    ::dup2(::open("/dev/null", O_RDONLY), STDIN_FILENO);
    ::dup2(::open(out.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0666), STDOUT_FILENO);
    ::dup2(::open(err.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0666), STDERR_FILENO);
    ::execv(argv[0], argv.data());
    ::_exit(127);
  }
  Command(const Command&) = delete;
  Command& operator=(const Command&) = delete;
  ~Command() {
    if (_pid <= 0) return;
    send(SIGKILL);
    wait();
  }

  void send(int signal) const { ::kill(_pid, signal); }
  /// The exit code, or minus the number of the signal that ended it.
  int wait() {
    int status = 0;
    const bool ended = eventually([&] { return ::waitpid(_pid, &status, WNOHANG) == _pid; });
    EXPECT_TRUE(ended) << "the command goes on and on: " << errors();
    if (!ended) {
      send(SIGKILL);
      ::waitpid(_pid, &status, 0);
    }
    _pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }
  int end_with(int signal) {
    send(signal);
    return wait();
  }

  std::string output() const { return _files.read("out"); }
  std::string errors() const { return _files.read("err"); }
  bool has_said(const std::string& text) const {
    return output().find(text) != std::string::npos || errors().find(text) != std::string::npos;
  }

 private:
  TempDir _files;
  pid_t _pid = -1;
};

/// A data directory and an origin, and the command line between them.
class CommandFixture : public SyncFixture {
 public:
  CommandFixture() {
    secrets.write("token", origin.token());
    secrets.write("wallet", origin.wallet_secret());
  }

  using Arguments = std::vector<std::string>;
  /// A command that needs no server.
  Arguments local(const std::string& name, const Arguments& more = {}) const {
    return with({name, "--data-dir", data.path()}, more);
  }
  /// One that does.
  Arguments remote(const std::string& name, const Arguments& more = {}) const {
    return with({name, "--data-dir", data.path(), "--server-url", origin.server_url(), "--token-file",
                 secrets.path("token"), "--wallet-secret-file", secrets.path("wallet")},
                more);
  }

  struct Outcome {
    int code = 0;
    std::string output;
    std::string errors;
    Document json() const { return Document::parse(output); }
  };
  static Outcome run(const Arguments& arguments) {
    Command command(arguments);
    const int code = command.wait();
    return {code, command.output(), command.errors()};
  }

  TempDir secrets;

 private:
  static Arguments with(Arguments arguments, const Arguments& more) {
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
  }
};

}  // namespace tidalcrest::sync::testing
