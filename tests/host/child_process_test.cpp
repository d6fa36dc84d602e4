#include "host/child_process.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/test.hpp"

namespace tidalcrest::sync {
namespace {

ChildResult run_script(const std::string& script, std::optional<int> output_descriptor = {}) {
  return run_child(
      {.arguments = {"sh", "-c", script}, .output_descriptor = output_descriptor, .stop_requested = {}});
}

TEST(ChildProcess, TellsHowItEnded) {
  const ChildResult ended = run_script("echo out; echo err >&2; exit 7");
  EXPECT_EQ(ended.standard_output, "out\n");
  EXPECT_EQ(ended.standard_error, "err\n");
  EXPECT_EQ(ended.exit_code, 7);
  EXPECT_EQ(run_script("kill -9 $$").exit_code, -9);
}

TEST(ChildProcess, ThatCannotBeStartedIsAFailure) {
  testing::TempDir dir;
  dir.write("text", "no program");
  const auto run = [](const std::string& program) {
    run_child({.arguments = {program}, .output_descriptor = {}, .stop_requested = {}});
  };
  EXPECT_THROW(run("no-such-program-anywhere"), FileNotFoundError);
  EXPECT_THROW(run(dir.path("text")), OSError);
}

TEST(ChildProcess, DiesWithItsHost) {
  testing::TempDir dir;
  const pid_t host = fork();
  if (host == 0) {
    run_script("echo $$ > '" + dir.path("child") + "'; kill -9 $PPID; exec sleep 60");
    _exit(0);
  }
  waitpid(host, nullptr, 0);
  const pid_t child = std::stoi(dir.read("child"));
  const auto runs = [&] {
    std::ifstream stat("/proc/" + std::to_string(child) + "/stat");
    std::string number, name, state;
    return stat >> number >> name >> state && state != "Z";
  };
  for (int looks = 0; looks < 500 && runs(); ++looks) poll(nullptr, 0, 10);
  EXPECT_FALSE(runs());
  kill(child, SIGKILL);
}

TEST(ChildProcess, GetsNoDescriptorOfItsHost) {
  constexpr int LEFT_OPEN = 90;
  ASSERT_EQ(dup2(STDERR_FILENO, LEFT_OPEN), LEFT_OPEN);  // not close-on-exec
  const ScopeExit closed([] { close(LEFT_OPEN); });
  EXPECT_EQ(run_script("(: >&90) 2>/dev/null && echo inherited").standard_output, "");
}

TEST(ChildProcess, KeepsItsOutputsApartWhereTheHostHasClosedItsOwn) {
  testing::TempDir dir;
  const int saved_input = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 60);
  const int saved_output = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 60);
  close(STDIN_FILENO);
  close(STDOUT_FILENO);
  const ScopeExit restored([&] {
    dup2(saved_input, STDIN_FILENO);
    dup2(saved_output, STDOUT_FILENO);
    close(saved_input);
    close(saved_output);
  });
  const int file = open(dir.path("out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_EQ(file, STDIN_FILENO);
  EXPECT_EQ(run_script("echo out; echo err >&2", file).standard_error, "err\n");
  close(file);
  EXPECT_EQ(dir.read("out"), "out\n");
}

}  // namespace
}  // namespace tidalcrest::sync
