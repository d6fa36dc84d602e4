#include <fmt/format.h>

#include <algorithm>

#include "commands.hpp"
#include "run.hpp"
#include "tidalcrest/sync/sync.hpp"
#include "units.hpp"

namespace tidalcrest::cli {
namespace {

struct RepairArguments {
  ManagerArguments manager;
  std::vector<std::string> paths;
};

bool is_repairable(const sync::Manifest& manifest, const std::string& path) {
  return path == "shuffle_seed.enc" || path == "shuffle_seed.enc.meta.json" ||
         manifest.file_entry(path).has_value();
}

// The repair itself passes over what the manifest does not hold; a user wants to hear of it.
void require_known_paths(const sync::Manifest& manifest, const std::vector<std::string>& paths) {
  for (const auto& path : paths) {
    if (!is_repairable(manifest, path)) {
      throw sync::ValueError("PATH " + path +
                             " is not in the manifest; paths are those that `tidalcrest-sync verify` prints");
    }
  }
}

// Damage to what the manager must read itself, such as a vocabulary, leaves it without a proven cohort to
// repair; a sync mends the selected one then.
sync::SyncResult repair_or_sync(sync::SyncManager& manager, const std::vector<std::string>& paths) {
  if (const auto manifest = manager.get_manifest()) {
    require_known_paths(*manifest, paths);
    return manager.repair(paths);
  }
  if (sync::DataDirectory(manager.data_dir()).status().at("state") == "empty") {
    throw sync::LocalCohortError("nothing is published in " + manager.data_dir() + " that could be repaired");
  }
  const sync::SyncResult result = manager.sync();
  require_known_paths(*manager.get_manifest(), paths);
  return result;
}

ExitCode repair(const RepairArguments& arguments, const std::shared_ptr<Display>& display) {
  const auto& common = arguments.manager.common;
  const auto options = arguments.manager.options(display);
  wait_for_other_processes(common, *display);
  sync::SyncManager manager(options);
  const sync::SyncResult result = repair_or_sync(manager, arguments.paths);
  display->finish();
  const std::string root_dir = manager.active_data_dir();
  if (common.json) {
    print_json({{"ok", true},
                {"era_number", result.era_number},
                {"version", manager.get_manifest()->version()},
                {"root_dir", root_dir},
                {"bytes_downloaded", result.bytes_downloaded},
                {"shuffle_seed_downloaded", result.shuffle_seed_downloaded}});
  } else {
    fmt::print("Repaired: {} fetched{}, every file proven\n{}\n",
               bytes_text(static_cast<double>(result.bytes_downloaded)),
               result.shuffle_seed_downloaded ? " and the shuffle seed" : "", root_dir);
  }
  return EXIT_IN_STEP;
}

}  // namespace

void add_repair_command(CLI::App& app, int& exit_code) {
  auto* command =
      app.add_subcommand("repair", "Fetch damaged files of the published cohort again and put them back");
  command->footer(
      "Only files that really differ are replaced, and only after the whole cohort has been proven aside.\n"
      "The two shuffle seed files are always fetched together. When the server has moved on meanwhile,\n"
      "the newest version is synced instead.");
  auto arguments = std::make_shared<RepairArguments>();
  arguments->manager.add_to(*command);
  command->add_option("PATH", arguments->paths, "Paths below the cohort's root, as `verify` prints them")
      ->required();
  command->callback([arguments, &exit_code] {
    exit_code = run_command(arguments->manager.common,
                            [&](const auto& display) { return repair(*arguments, display); });
  });
}

}  // namespace tidalcrest::cli
