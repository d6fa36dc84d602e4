#include "run.hpp"

#include <fmt/format.h>

#include <chrono>
#include <cstdio>
#include <thread>

#include "interrupt.hpp"
#include "tidalcrest/sync/sync.hpp"

namespace tidalcrest::cli {
namespace {

constexpr auto BUSY_CHECK_INTERVAL = std::chrono::milliseconds(50);

/// Sends the log to a display for its own lifetime.
class LogToDisplay {
 public:
  LogToDisplay(const std::shared_ptr<Display>& display, bool verbose) {
    sync::set_log_sink([display, verbose](const sync::LogRecord& record) {
      if (verbose && record.level < sync::LogLevel::warning) {
        display->say(fmt::format("{}: {}", log_level_name(record.level), record.message));
      }
      display->log(record);
    });
  }
  LogToDisplay(const LogToDisplay&) = delete;
  LogToDisplay& operator=(const LogToDisplay&) = delete;
  ~LogToDisplay() { sync::set_log_sink({}); }
};

void report_failure(const CommonArguments& arguments, const std::exception& failure, ExitCode code,
                    const std::string& interrupted_text) {
  if (arguments.json) {
    const auto* known = dynamic_cast<const sync::Failure*>(&failure);
    print_json(
        {{"ok", false},
         {"exit_code", static_cast<int>(code)},
         {"error",
          {{"type", known != nullptr ? known->type_name() : "RuntimeError"}, {"message", failure.what()}}}});
  } else if (code == EXIT_INTERRUPTED) {
    fmt::print(stderr, "{}\n", interrupted_text);
  } else {
    fmt::print(stderr, "error: {}\n", failure.what());
    if (dynamic_cast<const sync::LocalCohortError*>(&failure) != nullptr) {
      fmt::print(stderr, "`tidalcrest-sync sync` brings the directory in step.\n");
    }
  }
}

}  // namespace

ExitCode run_command(const CommonArguments& arguments, const CommandBody& body,
                     const std::function<std::string(const Display&)>& interrupted_text) {
  std::shared_ptr<Display> display;
  try {
    display = std::make_shared<Display>(style_for_standard_error(arguments.json));
    const LogToDisplay log(display, arguments.verbose);
    install_interrupt_handler();
    const sync::ScopedBackoffContext context(
        {.surface = "command_line", .data_dir = arguments.data_dir, .stop_requested = interrupted});
    return body(display);
  } catch (const std::exception& failure) {
    if (display) display->finish();
    const ExitCode code = exit_code_for(failure);
    const bool has_text = display && interrupted_text;
    report_failure(arguments, failure, code, has_text ? interrupted_text(*display) : INTERRUPTED_TEXT);
    return code;
  }
}

void wait_for_other_processes(const CommonArguments& arguments, Display& display) {
  const sync::DataDirectory directory(arguments.data_dir);
  if (!directory.is_busy()) return;
  display.note("another process is at work in " + arguments.data_dir + "; waiting for its end");
  while (directory.is_busy()) {
    if (interrupted()) throw sync::SyncBackoffCancelled("a stop was requested while another process worked");
    std::this_thread::sleep_for(BUSY_CHECK_INTERVAL);
  }
}

void print_json(const sync::Document& document) {
  fmt::print("{}\n", document.dump(-1, ' ', false, sync::Document::error_handler_t::replace));
}

}  // namespace tidalcrest::cli
