#include <chrono>
#include <thread>

#include "commands.hpp"
#include "interrupt.hpp"
#include "run.hpp"
#include "tidalcrest/sync/sync.hpp"
#include "watch_report.hpp"

namespace tidalcrest::cli {
namespace {

constexpr auto LOOK_INTERVAL = std::chrono::milliseconds(50);

struct WatchArguments {
  ManagerArguments manager;
  double poll_interval_s = sync::SYNC_MANIFEST_POLL_INTERVAL_SECONDS;
};

sync::EraCallback era_events_to(const std::shared_ptr<WatchReport>& report) {
  return {.call = [report](const std::string& event_type,
                           std::int64_t era_number) { report->era_event(event_type, era_number); },
          .identity = report.get(),
          .label = "watch"};
}

// Tells of every change of what the manager shows.
class Look {
 public:
  Look(const sync::SyncManager& manager, WatchReport& report)
      : _manager(manager), _report(report), _manifest(manager.get_manifest()) {
    _report.active(_manifest.get(), _manager.active_data_dir());
  }
  void look() {
    if (auto manifest = _manager.get_manifest(); manifest != _manifest) {
      _manifest = std::move(manifest);
      _report.active(_manifest.get(), _manager.active_data_dir());
    }
    if (auto message = _manager.status(); message != _message) {
      _message = std::move(message);
      if (_message) _report.status_message(*_message);
    }
  }

 private:
  const sync::SyncManager& _manager;
  WatchReport& _report;
  std::shared_ptr<const sync::Manifest> _manifest;
  std::optional<std::string> _message;
};

// A count that a dead process left keeps the release from stopping the threads.
void stop(sync::SyncManager& manager) {
  manager.release();
  manager.stop();
}

// A monitor that starts without a manifest never comes to know an era; with the first cohort it starts anew.
void restart(sync::SyncManager& manager) {
  stop(manager);
  manager.acquire();
}

ExitCode watch(const WatchArguments& arguments, const std::shared_ptr<Display>& display) {
  const auto& common = arguments.manager.common;
  const auto report = std::make_shared<WatchReport>(display, common.json);
  auto options = arguments.manager.options(report);
  options.poll_interval_s = arguments.poll_interval_s;
  wait_for_other_processes(common, *display);
  sync::set_log_sink([report, display, verbose = common.verbose](const sync::LogRecord& record) {
    if (verbose && record.level < sync::LogLevel::info) display->say("debug: " + record.message);
    report->log(record);
  });
  sync::SyncManager manager(std::move(options));
  manager.register_era_callback(era_events_to(report));
  report->started(manager.data_dir(), manager.server_url(), manager.poll_interval_s());
  Look changes(manager, *report);
  bool follows_the_era = manager.get_manifest() != nullptr;
  manager.acquire();
  while (!interrupted()) {
    changes.look();
    if (!follows_the_era && manager.get_manifest() && !sync::DataDirectory(common.data_dir).is_busy()) {
      restart(manager);
      follows_the_era = true;
    }
    std::this_thread::sleep_for(LOOK_INTERVAL);
  }
  report->stopping();
  stop(manager);
  changes.look();  // a publication is not undone by a stop
  report->stopped();
  display->finish();
  return EXIT_IN_STEP;
}

}  // namespace

void add_watch_command(CLI::App& app, int& exit_code) {
  auto* command = app.add_subcommand(
      "watch", "Keep the data directory in step until it is stopped, through new versions and new eras");
  command->footer(
      "Asks the server every --poll-interval seconds, publishes what is new, and follows the market's era.\n"
      "One line per event; on a terminal the progress too. Failures are told and tried again. Ctrl-C or\n"
      "SIGTERM stops it cleanly with exit code 0; a second one at once.");
  auto arguments = std::make_shared<WatchArguments>();
  arguments->manager.add_to(*command, "Print one JSON object per event on standard output");
  command
      ->add_option("--poll-interval", arguments->poll_interval_s,
                   "Seconds between two questions to the server")
      ->check(positive_number())
      ->capture_default_str();
  command->callback([arguments, &exit_code] {
    exit_code = run_command(arguments->manager.common,
                            [&](const auto& display) { return watch(*arguments, display); });
  });
}

}  // namespace tidalcrest::cli
