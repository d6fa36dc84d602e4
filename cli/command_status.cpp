#include <fmt/format.h>

#include "commands.hpp"
#include "run.hpp"
#include "status_text.hpp"
#include "tidalcrest/sync/data_directory.hpp"

namespace tidalcrest::cli {
namespace {

ExitCode show_status(const CommonArguments& arguments, Display& display) {
  const sync::Document status = sync::DataDirectory(arguments.data_dir).status();
  display.finish();
  if (arguments.json) {
    print_json(status);
  } else {
    fmt::print("{}", status_text(status));
  }
  return EXIT_IN_STEP;
}

}  // namespace

void add_status_command(CLI::App& app, int& exit_code) {
  auto* command = app.add_subcommand(
      "status", "Show what is published, what rotation holds, and how far a running sync has come");
  command->footer(
      "Asks no server and waits for nobody: it can be run at any time, also while another process syncs.\n"
      "Exit code 0 also when nothing is published; `snapshot` tells that by its exit code.");
  auto arguments = std::make_shared<CommonArguments>();
  arguments->add_to(*command);
  command->callback([arguments, &exit_code] {
    exit_code =
        run_command(*arguments, [&](const auto& display) { return show_status(*arguments, *display); });
  });
}

}  // namespace tidalcrest::cli
