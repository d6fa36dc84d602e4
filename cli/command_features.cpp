#include <fmt/format.h>

#include <algorithm>
#include <cctype>

#include "commands.hpp"
#include "run.hpp"
#include "tidalcrest/sync/sync.hpp"

namespace tidalcrest::cli {
namespace {

constexpr double NO_FURTHER_POLL_SECONDS = 24 * 60 * 60;

struct FeaturesArguments {
  ManagerArguments manager;
  std::vector<std::string> names;
  bool strategy = false;
  std::string universe;
};

// Names that the manifest has no file for bring nothing; a user wants to hear of them.
void require_every_feature(const FeaturesArguments& arguments, const std::vector<std::string>& paths) {
  for (const auto& name : arguments.names) {
    const std::string file = "/" + name + ".arrow";
    if (std::any_of(paths.begin(), paths.end(), [&](const auto& path) { return path.ends_with(file); })) {
      continue;
    }
    throw sync::ValueError(
        fmt::format("NAME {}: the manifest has no {} feature of this name{}", name,
                    arguments.strategy ? "strategy" : "signal",
                    arguments.universe.empty() ? "" : " in universe " + arguments.universe));
  }
}

// Requests are for managers that run. This one runs for as long as its request, in step from the start.
std::vector<std::string> request(sync::SyncManager& manager, const FeaturesArguments& arguments) {
  manager.sync();
  manager.start();
  const auto paths = manager.request_feature_files_for_sync(
      arguments.names, arguments.strategy ? "STRATEGY" : "SIGNAL",
      arguments.universe.empty() ? std::nullopt : std::optional(arguments.universe));
  manager.stop();
  return paths;
}

ExitCode fetch_features(const FeaturesArguments& arguments, const std::shared_ptr<Display>& display) {
  const auto& common = arguments.manager.common;
  auto options = arguments.manager.options(display);
  options.poll_interval_s = NO_FURTHER_POLL_SECONDS;
  wait_for_other_processes(common, *display);
  sync::SyncManager manager(std::move(options));
  const auto paths = request(manager, arguments);
  display->finish();
  require_every_feature(arguments, paths);
  if (common.json) {
    print_json({{"ok", true}, {"root_dir", manager.active_data_dir()}, {"paths", paths}});
  } else {
    for (const auto& path : paths) fmt::print("{}\n", path);
  }
  return EXIT_IN_STEP;
}

}  // namespace

void add_features_command(CLI::App& app, int& exit_code) {
  auto* command = app.add_subcommand(
      "features", "Make sure that the files of the named features are here, and print their paths");
  command->footer(
      "For features that rotation left out. Syncs first, then adds what is missing to the published cohort,\n"
      "the other members of each feature's family included. Rotation spares these files for the rest of the "
      "era.");
  auto arguments = std::make_shared<FeaturesArguments>();
  arguments->manager.add_to(*command);
  command->add_option("NAME", arguments->names, "Names of features, without directory and .arrow")
      ->required()
      ->check([](const std::string& name) {
        const bool blank = name.empty() || std::isspace(static_cast<unsigned char>(name.front())) != 0 ||
                           std::isspace(static_cast<unsigned char>(name.back())) != 0;
        return std::string(blank ? "a name must not be empty, or begin or end with a blank" : "");
      });
  command->add_flag("--strategy", arguments->strategy, "Strategy features in place of signal features");
  command->add_option("--universe", arguments->universe, "Only features of this named universe");
  command->callback([arguments, &exit_code] {
    exit_code = run_command(arguments->manager.common,
                            [&](const auto& display) { return fetch_features(*arguments, display); });
  });
}

}  // namespace tidalcrest::cli
