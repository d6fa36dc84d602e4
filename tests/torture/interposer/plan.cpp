#include "plan.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sstream>

namespace tidalcrest::torture {
namespace {

constexpr std::array<const char*, CALL_KINDS> KIND_NAMES = {"open",   "write", "copy",   "clone", "truncate",
                                                            "rename", "link",  "unlink", "mkdir", "sync",
                                                            "flock",  "send",  "recv"};

/// Lies in the shared file, in this order.
struct Counters {
  std::atomic<std::uint64_t> calls;
  std::atomic<std::uint64_t> hits;
  std::atomic<std::uint64_t> received_bytes;
  std::array<std::atomic<std::uint64_t>, CALL_KINDS> by_kind;
};

int error_number(const std::string& name) {
  constexpr int MOST_ERRORS = 134;
  for (int number = 1; number < MOST_ERRORS; ++number) {
    const char* known = ::strerrorname_np(number);
    if (known != nullptr && name == known) return number;
  }
  std::abort();
}

class Plan {
 public:
  Plan() {
    _map_counters();
    if (const char* root = std::getenv("TIDALCREST_TORTURE_ROOT")) _root = root;
    if (const char* plan = std::getenv("TIDALCREST_TORTURE_PLAN")) _parse(plan);
    // Programs that this one starts run as they are.
    ::unsetenv("LD_PRELOAD");
  }

  Verdict judge(Call kind) {
    const auto index = static_cast<std::size_t>(kind);
    const std::uint64_t of_all = _counters->calls.fetch_add(1) + 1;
    const std::uint64_t of_kind = _counters->by_kind[index].fetch_add(1) + 1;
    if (_kind != CALL_KINDS && _kind != static_cast<int>(index)) return {};
    const std::uint64_t number = _kind == CALL_KINDS ? of_all : of_kind;
    const bool applies = _from_then_on ? number >= _number : number == _number;
    if (!applies) return {};
    _counters->hits.fetch_add(1);
    if (_kills_before) end_process();
    return _verdict;
  }

  void count_received(long bytes) { _counters->received_bytes.fetch_add(static_cast<std::uint64_t>(bytes)); }
  const std::string& root() const { return _root; }
  bool grants_all_locks() const { return _grants_all_locks; }

 private:
  void _map_counters() {
    _counters = &_own;
    const char* path = std::getenv("TIDALCREST_TORTURE_COUNTERS");
    if (path == nullptr) return;
    const long file = ::syscall(SYS_openat, AT_FDCWD, path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (file < 0) return;
    if (::syscall(SYS_ftruncate, file, sizeof(Counters)) == 0) {
      void* mapped =
          ::mmap(nullptr, sizeof(Counters), PROT_READ | PROT_WRITE, MAP_SHARED, static_cast<int>(file), 0);
      if (mapped != MAP_FAILED) _counters = static_cast<Counters*>(mapped);
    }
    ::close(static_cast<int>(file));
  }

  void _parse(const char* text) {
    std::istringstream words(text);
    std::string action, kind;
    words >> action;
    if (action == "grant-all-locks") {
      _grants_all_locks = true;
      return;
    }
    words >> kind >> _number;
    for (int i = 0; i < CALL_KINDS; ++i) {
      if (kind == KIND_NAMES[static_cast<std::size_t>(i)]) _kind = i;
    }
    _kills_before = action == "kill-before";
    if (action == "kill-torn") _verdict = {.half = true, .kill_after = true};
    if (action != "fail") return;
    std::string error, how_long;
    words >> error >> how_long;
    _verdict.half = error == "SHORT";
    if (!_verdict.half) _verdict.error = error_number(error);
    _from_then_on = how_long == "on";
  }

  Counters _own{};
  Counters* _counters = nullptr;
  std::string _root;
  int _kind = CALL_KINDS;     // any
  std::uint64_t _number = 0;  // of the call that meets it; none without a plan
  bool _kills_before = false;
  Verdict _verdict;
  bool _from_then_on = false;
  bool _grants_all_locks = false;
};

Plan& plan() {
  static Plan instance;
  return instance;
}

// Read before `main`, so that nothing of the program comes first.
const bool READ_EARLY = (plan(), true);

}  // namespace

Verdict judge(Call kind) { return plan().judge(kind); }
void count_received(long bytes) {
  if (bytes > 0) plan().count_received(bytes);
}
bool grants_all_locks() { return plan().grants_all_locks(); }
const std::string& torture_root() { return plan().root(); }

void end_process() {
  ::kill(::getpid(), SIGKILL);
  while (true) ::pause();
}

}  // namespace tidalcrest::torture
