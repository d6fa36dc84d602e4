#include <fmt/format.h>

#include <chrono>

#include "commands.hpp"
#include "run.hpp"
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

void report_success(bool json, const Display& display, const sync::SyncManager& manager,
                    const sync::SyncResult& result, double seconds) {
  if (json) return print_json(result_document(result, manager, seconds));
  const auto manifest = manager.get_manifest();
  const auto totals = display.totals();
  fmt::print("In step with era {}, version {}: {} active, ", result.era_number, manifest->version().dump(),
             counted(static_cast<std::int64_t>(result.active_relative_paths.size()), "member"));
  if (result.bytes_downloaded == 0) {
    fmt::print("nothing to do ({:.2f} s)\n", seconds);
  } else {
    fmt::print("{} fetched, {} ({:.2f} s)\n", counted(totals.files, "file"),
               bytes_text(static_cast<double>(result.bytes_downloaded)), seconds);
  }
  fmt::print("{}\n", manager.active_data_dir());
}

ExitCode sync_once(const ManagerArguments& arguments, const std::shared_ptr<Display>& display) {
  const auto started = std::chrono::steady_clock::now();
  const auto options = arguments.options(display);
  wait_for_other_processes(arguments.common, *display);
  sync::SyncManager manager(options);
  const sync::SyncResult result = manager.sync();
  display->finish();
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  report_success(arguments.common.json, *display, manager, result, seconds);
  return EXIT_IN_STEP;
}

std::string what_is_kept(const ManagerArguments& arguments, const Display& display) {
  const auto totals = display.totals();
  if (totals.files == 0) return INTERRUPTED_TEXT;
  return fmt::format("{} Kept for the next sync: {} of {} files, {} in all, below {}.", INTERRUPTED_TEXT,
                     count_text(totals.files_done), count_text(totals.files),
                     bytes_text(static_cast<double>(totals.bytes_done)),
                     arguments.common.data_dir + "/.tidalcrest-cohorts");
}

}  // namespace

void add_sync_command(CLI::App& app, int& exit_code) {
  auto* command = app.add_subcommand(
      "sync", "Bring the data directory in step with the server: fetch what changed, prove it, publish it");
  command->footer(
      "Nothing is visible to readers before all of it is proven. A stopped or failed sync is continued by\n"
      "the next one. Prints the directory in which the published files lie.");
  auto arguments = std::make_shared<ManagerArguments>();
  arguments->add_to(*command);
  command->callback([arguments, &exit_code] {
    exit_code = run_command(
        arguments->common, [&](const auto& display) { return sync_once(*arguments, display); },
        [&](const Display& display) { return what_is_kept(*arguments, display); });
  });
}

}  // namespace tidalcrest::cli
