#pragma once

#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include "siblings/distribution/contained_open.hpp"
#include "siblings/distribution/disk_calls.hpp"
#include "support/test.hpp"

namespace tidalcrest::sync::testing {

namespace fs = std::filesystem;

/// Puts the machine's own calls back when the test ends.
struct RestoredDiskCalls {
  ~RestoredDiskCalls() { disk_calls() = DiskCalls::real(); }
};

/// Runs the same test with the kernel's way of opening and with the stepwise one.
class BothOpeningMethods : public ::testing::TestWithParam<client_manifest::OpeningMethod> {
 protected:
  BothOpeningMethods() : _before(client_manifest::opening_method()) {
    if (_before == client_manifest::OpeningMethod::kernel) client_manifest::set_opening_method(GetParam());
  }
  ~BothOpeningMethods() override { client_manifest::set_opening_method(_before); }

 private:
  const client_manifest::OpeningMethod _before;
};

#define INSTANTIATE_FOR_BOTH_OPENING_METHODS(Suite)                                                        \
  INSTANTIATE_TEST_SUITE_P(                                                                                \
      Opening, Suite,                                                                                      \
      ::testing::Values(client_manifest::OpeningMethod::kernel, client_manifest::OpeningMethod::stepwise), \
      [](const auto& info) {                                                                               \
        return info.param == client_manifest::OpeningMethod::kernel ? "kernel" : "stepwise";               \
      })

inline void make_socket(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  const int socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_EQ(::bind(socket, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ::close(socket);
}

inline std::vector<std::string> files_below(const TempDir& root) {
  std::vector<std::string> found;
  for (const auto& entry : fs::recursive_directory_iterator(root.path())) {
    if (fs::is_directory(entry.symlink_status())) continue;
    found.push_back(entry.path().lexically_relative(root.path()).string());
  }
  return found;
}

/// A child process that runs `work`, tells the parent that it is ready, and stays until it is killed.
class Child {
 public:
  explicit Child(const std::function<void()>& work) {
    int ready[2];
    if (::pipe(ready) != 0) throw std::runtime_error("no pipe");
    _process = ::fork();
    if (_process == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      work();
      if (::write(ready[1], "r", 1) == 1) ::pause();
      ::_exit(0);
    }
    ::close(ready[1]);
    char byte = 0;
    is_ready = ::read(ready[0], &byte, 1) == 1;
    ::close(ready[0]);
  }
  ~Child() { kill(); }
  void kill() {
    if (_process <= 0) return;
    ::kill(_process, SIGKILL);
    ::waitpid(std::exchange(_process, -1), nullptr, 0);
  }

  bool is_ready = false;

 private:
  pid_t _process = -1;
};

}  // namespace tidalcrest::sync::testing
