#include "command_sync.hpp"

#include <fmt/format.h>

#include <chrono>
#include <cstdio>
#include <memory>

#include "display.hpp"
#include "exit_code.hpp"
#include "interrupt.hpp"
#include "manager_arguments.hpp"
#include "tidalcrest/sync/sync.hpp"
#include "units.hpp"

namespace tidalcrest::cli {
namespace {

using sync::Document;

Document result_document(const sync::SyncResult& result, const sync::SyncManager& manager, double seconds) {
  const auto manifest = manager.get_manifest();
  return {
      {"ok", true},
      {"era_number", result.era_number},
      {"version", manifest ? manifest->version() : Document(nullptr)},
      {"root_dir", manager.active_data_dir()},
      {"features_downloaded", result.features_downloaded},
      {"useful_signals_downloaded", result.useful_signals_downloaded},
      {"bytes_downloaded", result.bytes_downloaded},
      {"vocabulary_downloaded", result.vocabulary_downloaded},
      {"shuffle_seed_downloaded", result.shuffle_seed_downloaded},
      {"n_features", result.n_features},
      {"n_instruments", result.n_instruments},
      {"n_useful_signals", result.n_useful_signals},
      {"n_found_strategies", result.n_found_strategies},
      {"pnl_column_count", result.pnl_column_count},
      {"active_paths", result.active_relative_paths.size()},
      {"skipped_paths", result.skipped_relative_paths.size()},
      {"found_pnl_paths_downloaded", result.found_pnl_paths_downloaded},
      {"seconds", seconds},
  };
}

// Paths need not be UTF-8; JSON must be.
void print_json(const Document& document) {
  fmt::print("{}\n", document.dump(-1, ' ', false, Document::error_handler_t::replace));
}

void report_success(const ManagerArguments& arguments, Display& display, const sync::SyncManager& manager,
                    const sync::SyncResult& result, double seconds) {
  if (arguments.json) return print_json(result_document(result, manager, seconds));
  const auto manifest = manager.get_manifest();
  const auto totals = display.totals();
  fmt::print("In step with era {}, version {}: {} members active, ", result.era_number,
             manifest->version().dump(),
             count_text(static_cast<std::int64_t>(result.active_relative_paths.size())));
  if (result.bytes_downloaded == 0) {
    fmt::print("nothing to do ({:.2f} s)\n", seconds);
  } else {
    fmt::print("{} files fetched, {} ({:.2f} s)\n", count_text(totals.files),
               bytes_text(static_cast<double>(result.bytes_downloaded)), seconds);
  }
  fmt::print("{}\n", manager.active_data_dir());
}

void report_failure(const ManagerArguments& arguments, Display& display, const std::exception& failure,
                    ExitCode code) {
  const auto* known = dynamic_cast<const sync::Failure*>(&failure);
  if (arguments.json) {
    print_json(
        {{"ok", false},
         {"exit_code", static_cast<int>(code)},
         {"error",
          {{"type", known != nullptr ? known->type_name() : "RuntimeError"}, {"message", failure.what()}}}});
    return;
  }
  if (code == EXIT_INTERRUPTED) {
    const auto totals = display.totals();
    display.say(fmt::format(
        "Stopped. The published cohort is as it was. Kept for the next sync: {} of {} files, {} in all, "
        "below {}.",
        count_text(totals.files_done), count_text(totals.files),
        bytes_text(static_cast<double>(totals.bytes_done)), arguments.data_dir + "/.tidalcrest-cohorts"));
    return;
  }
  display.say(fmt::format("error: {}", failure.what()));
}

ExitCode run_sync(const ManagerArguments& arguments) {
  auto display = std::make_shared<Display>(style_for_standard_error(arguments.json));
  sync::set_log_sink([display, verbose = arguments.verbose](const sync::LogRecord& record) {
    if (verbose && record.level < sync::LogLevel::warning) {
      display->say(fmt::format("{}: {}", log_level_name(record.level), record.message));
    }
    display->log(record);
  });
  install_interrupt_handler();
  const auto started = std::chrono::steady_clock::now();
  ExitCode code = EXIT_IN_STEP;
  try {
    sync::SyncManager manager(arguments.options(display));
    const sync::ScopedBackoffContext context(
        {.surface = "command_line", .data_dir = arguments.data_dir, .stop_requested = interrupted});
    const sync::SyncResult result = manager.sync();
    display->finish();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    report_success(arguments, *display, manager, result, seconds);
  } catch (const std::exception& failure) {
    display->finish();
    code = exit_code_for(failure);
    report_failure(arguments, *display, failure, code);
  }
  sync::set_log_sink({});
  return code;
}

}  // namespace

void add_sync_command(CLI::App& app, int& exit_code) {
  auto* command = app.add_subcommand(
      "sync", "Bring the data directory in step with the server: fetch what changed, prove it, publish it");
  auto arguments = std::make_shared<ManagerArguments>();
  arguments->add_to(*command);
  command->callback([arguments, &exit_code] { exit_code = run_sync(*arguments); });
}

}  // namespace tidalcrest::cli
