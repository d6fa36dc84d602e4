#include <fmt/format.h>

#include "commands.hpp"
#include "run.hpp"
#include "tidalcrest/sync/data_directory.hpp"

namespace tidalcrest::cli {
namespace {

ExitCode snapshot(const CommonArguments& arguments, Display& display) {
  const auto cohort = sync::DataDirectory(arguments.data_dir).active_cohort_snapshot();
  display.finish();
  if (arguments.json) {
    const auto manifest = sync::Document::parse(cohort.manifest_bytes());
    print_json({{"ok", true},
                {"base_dir", cohort.base_dir()},
                {"root_dir", cohort.root_dir()},
                {"era_number", manifest.at("era_number")},
                {"version", manifest.at("version")}});
  } else {
    fmt::print("{}\n", cohort.root_dir());
  }
  return EXIT_IN_STEP;
}

}  // namespace

void add_snapshot_command(CLI::App& app, int& exit_code) {
  auto* command = app.add_subcommand("snapshot", "Print the directory in which the published files lie");
  command->footer(
      "What is in it never changes. It stays readable at least until one more version has been published\n"
      "and old generations are collected.");
  auto arguments = std::make_shared<CommonArguments>();
  arguments->add_to(*command);
  command->callback([arguments, &exit_code] {
    exit_code = run_command(*arguments, [&](const auto& display) { return snapshot(*arguments, *display); });
  });
}

}  // namespace tidalcrest::cli
