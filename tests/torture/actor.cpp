// One operation of the product in a process of its own, its outcome as one JSON object on standard output.
//   torture_actor OPERATION DATA_DIR SERVER_URL TOKEN_FILE WALLET_FILE [argument...]
// Waits of the backoff policy take no time. Once they would have taken WAIT_BUDGET_SECONDS in all the
// operation is asked to stop: whoever is still repeating then (`SyncBackoffCancelled`) repeats for ever.

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "download/local_files.hpp"
#include "host/digest.hpp"
#include "host/json.hpp"
#include "host/log.hpp"
#include "host/seams.hpp"
#include "siblings/distribution/cohort_layout.hpp"
#include "siblings/distribution/pinned_root.hpp"
#include "tidalcrest/sync/sync.hpp"

namespace tidalcrest::sync {
namespace {

constexpr double WAIT_BUDGET_SECONDS = 600;

struct Arguments {
  std::string operation;
  std::string data_dir;
  std::string server_url;
  std::string token_file;
  std::string wallet_file;
  std::vector<std::string> rest;
};

std::string bytes_of(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

std::string text_of(const std::string& path) {
  std::string text = bytes_of(path);
  while (!text.empty() && text.back() == '\n') text.pop_back();
  return text;
}

std::string from_hex(const std::string& digits) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < digits.size(); i += 2)
    bytes.push_back(static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16)));
  return bytes;
}

std::ptrdiff_t entries_of(const char* directory) {
  return std::distance(std::filesystem::directory_iterator(directory), {});
}

/// What a failed operation must not leave behind in its process.
struct Holdings {
  std::ptrdiff_t descriptors = entries_of("/proc/self/fd");
  std::ptrdiff_t threads = entries_of("/proc/self/task");
};

bool lock_is_free(const std::string& data_dir) {
  const std::string path = data_dir + "/" + local_cohort::DISTRIBUTION_LOCK_FILE;
  const int file = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (file < 0) return true;
  // Past the interposer: this is a question, not a part of the operation.
  const bool free = ::syscall(SYS_flock, file, LOCK_EX | LOCK_NB) == 0;
  ::close(file);
  return free;
}

class Actor {
 public:
  explicit Actor(Arguments arguments)
      : _arguments(std::move(arguments)),
        _token(text_of(_arguments.token_file)),
        _wallet(from_hex(text_of(_arguments.wallet_file))) {
    _seams.sleep = [this](double seconds) { _waited += seconds; };
    set_log_sink([](const LogRecord&) {});
  }
  ~Actor() { set_log_sink({}); }

  Document run() {
    const ScopedBackoffContext context({.surface = "torture",
                                        .data_dir = _arguments.data_dir,
                                        .stop_requested = [this] { return _waited > WAIT_BUDGET_SECONDS; }});
    const auto& operation = _arguments.operation;
    if (operation == "settle") return settle();
    if (operation.ends_with("-loop")) return loop(operation);
    return guarded(operation);
  }

 private:
  SyncOptions options() const {
    SyncOptions options{.data_dir = _arguments.data_dir, .server_url = _arguments.server_url};
    options.token = _token;
    options.get_wallet_secret = [this] { return std::optional(_wallet); };
    if (const char* concurrency = std::getenv("TIDALCREST_TORTURE_CONCURRENCY"))
      options.sync_max_concurrency = std::stoi(concurrency);
    return options;
  }

  void perform(const std::string& operation, SyncManager& manager, Document& outcome) const {
    const auto& rest = _arguments.rest;
    if (operation == "sync") manager.sync();
    if (operation == "repair") manager.repair(rest);
    if (operation == "collect") manager.collect_generations(std::stoll(rest.at(0)));
    if (operation == "transition") manager.trigger_era_transition(std::stoll(rest.at(0)));
    if (operation == "read") outcome["value"] = reading(manager);
  }

  // What a consumer of this process would see: the selection, and whether it proves itself.
  static Document reading(SyncManager& manager) {
    const auto report = manager.verify();
    Document seen = {{"valid", report.valid},
                     {"missing", report.missing_files},
                     {"corrupted", report.corrupted_files},
                     {"selected", nullptr}};
    if (manager.get_manifest() != nullptr && report.valid)
      seen["selected"] = sha256_hex(manager.active_cohort_snapshot().manifest_bytes());
    return seen;
  }

  // Runs one operation on a manager of its own and tells how it ended and what it left behind.
  Document guarded(const std::string& operation) {
    (void)Seams::real().random_bytes(1);  // libraries open what they keep open on their first use
    const Holdings before;
    Document outcome = {{"ok", true}};
    try {
      SyncManager manager(options(), _seams);
      perform(operation, manager, outcome);
    } catch (const Failure& failure) {
      outcome["ok"] = false;
      outcome["error"] = failure.type_name();
      outcome["message"] = failure.what();
    } catch (const std::exception& failure) {
      outcome["ok"] = false;
      outcome["error"] = "std::exception";
      outcome["message"] = failure.what();
    }
    const Holdings after;
    outcome["waited"] = _waited.load();
    outcome["leaked_descriptors"] = after.descriptors - before.descriptors;
    outcome["leaked_threads"] = after.threads - before.threads;
    outcome["lock_free"] = lock_is_free(_arguments.data_dir);
    return outcome;
  }

  // A reader, a sync and a second reader, as processes that come after a crash.
  Document settle() {
    const Document before = guarded("read"), sync = guarded("sync"), after = guarded("read");
    return {{"before", before}, {"sync", sync}, {"after", after}};
  }

  // --- Loops of several processes on one directory ---

  Document loop(const std::string& operation) {
    const auto end =
        std::chrono::steady_clock::now() + std::chrono::duration<double>(std::stod(_arguments.rest.at(0)));
    _seams.sleep = [](double seconds) {
      std::this_thread::sleep_for(std::chrono::duration<double>(std::min(seconds, 0.02)));
    };
    std::set<std::string> failures;
    std::vector<std::string> wrong;
    int rounds = 0;
    while (std::chrono::steady_clock::now() < end && wrong.empty()) {
      ++rounds;
      try {
        once(operation, wrong);
      } catch (const Failure& failure) {
        failures.insert(fmt::format("{}: {}", failure.type_name(), failure.what()).substr(0, 300));
      } catch (const std::exception& failure) {
        wrong.push_back(fmt::format("not a failure of the family: {}", failure.what()));
      }
    }
    return {{"ok", wrong.empty()}, {"rounds", rounds}, {"failures", failures}, {"wrong", wrong}};
  }

  void once(const std::string& operation, std::vector<std::string>& wrong) {
    if (operation == "sweep-loop") return _cleanup_sync_tmp_files(_arguments.data_dir);
    SyncManager manager(options(), _seams);
    if (operation == "write-loop") {
      manager.sync();
    } else if (operation == "collect-loop") {
      manager.collect_generations(1);
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    } else if (operation == "verify-loop") {
      manager.verify();
    } else {
      read_under_pin(manager, wrong);
    }
  }

  // Reads every member of a pinned cohort, twice, with a pause in which others publish and collect.
  void read_under_pin(const SyncManager& manager, std::vector<std::string>& wrong) {
    if (manager.get_manifest() == nullptr) return;
    const auto pin = manager.pin_active_cohort_snapshot();
    const std::string& root = pin.snapshot().root_dir();
    const Document manifest = parse_strict_json(pin.snapshot().manifest_bytes());
    const Document record = parse_strict_json(bytes_of(root + "/" + local_cohort::COHORT_COMPLETION_FILE));
    for (int pass = 0; pass < 2; ++pass) {
      for (const auto& member : record.at("active_relative_paths")) {
        const auto path = member.get<std::string>();
        const Document* declared = find_member(manifest.at("files"), path);
        if (declared != nullptr && sha256_hex(bytes_of(root + "/" + path)) != declared->at("sha256"))
          wrong.push_back(fmt::format("{} reads wrong under a pin of {}", path, root));
      }
      if (pass == 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }

  const Arguments _arguments;
  const std::string _token;
  const std::string _wallet;
  Seams _seams = Seams::real();
  std::atomic<double> _waited{0};
};

}  // namespace
}  // namespace tidalcrest::sync

int main(int argc, char** argv) {
  using namespace tidalcrest::sync;
  if (argc < 6) {
    std::cerr << "torture_actor OPERATION DATA_DIR SERVER_URL TOKEN_FILE WALLET_FILE [argument...]\n";
    return 2;
  }
  Actor actor({argv[1], argv[2], argv[3], argv[4], argv[5], {argv + 6, argv + argc}});
  std::cout << actor.run().dump(-1, ' ', false, Document::error_handler_t::replace) << std::endl;
  return 0;
}
