#include <fmt/format.h>

#include "commands.hpp"
#include "run.hpp"
#include "tidalcrest/sync/data_directory.hpp"
#include "units.hpp"

namespace tidalcrest::cli {
namespace {

ExitCode cleanup_eras(const CommonArguments& arguments, Display& display) {
  const std::int64_t bytes_freed = sync::DataDirectory(arguments.data_dir).cleanup_old_eras();
  display.finish();
  if (arguments.json) {
    print_json({{"ok", true}, {"bytes_freed", bytes_freed}});
  } else {
    fmt::print("{} came free\n", bytes_text(static_cast<double>(bytes_freed)));
  }
  return EXIT_IN_STEP;
}

}  // namespace

void add_cleanup_eras_command(CLI::App& app, int& exit_code) {
  auto* command = app.add_subcommand(
      "cleanup-eras", "Remove the era_N directories that earlier eras left directly in the data directory");
  command->footer(
      "The directory of the published era stays, and so does the published cohort. Generations are `gc`'s\n"
      "business.");
  auto arguments = std::make_shared<CommonArguments>();
  arguments->add_to(*command);
  command->callback([arguments, &exit_code] {
    exit_code =
        run_command(*arguments, [&](const auto& display) { return cleanup_eras(*arguments, *display); });
  });
}

}  // namespace tidalcrest::cli
