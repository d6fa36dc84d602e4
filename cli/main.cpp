#include <CLI/CLI.hpp>
#include <cstdio>

#include "commands.hpp"
#include "exit_code.hpp"

namespace {

bool is_command(const CLI::App& app, const std::string& name) {
  return !app.get_subcommands([&](const CLI::App* command) { return command->check_name(name); }).empty();
}

}  // namespace

// A command described wrongly is a mistake of this program, and ends it.
// NOLINTNEXTLINE(bugprone-exception-escape)
int main(int argc, char** argv) {
  using namespace tidalcrest::cli;
  CLI::App app{"Keeps a local data directory in step with a remote distribution: exact, verified, immutable.",
               "tidalcrest-sync"};
  app.set_version_flag("--version", std::string("tidalcrest-sync ") + TIDALCREST_VERSION);
  app.footer(
      "Start with `sync`; every command tells more with --help.\n"
      "Exit codes: 0 in step, 1 failed, 2 usage, 3 unavailable, 4 refused (downgrade, era, identity, "
      "market),\n"
      "5 disk space, 130 interrupted.");
  app.require_subcommand(1);
  int exit_code = EXIT_IN_STEP;
  add_sync_command(app, exit_code);
  add_watch_command(app, exit_code);
  add_status_command(app, exit_code);
  add_snapshot_command(app, exit_code);
  add_verify_command(app, exit_code);
  add_repair_command(app, exit_code);
  add_features_command(app, exit_code);
  add_gc_command(app, exit_code);
  add_cleanup_eras_command(app, exit_code);
  // The parser would only say that a command is missing.
  if (argc > 1 && argv[1][0] != '-' && !is_command(app, argv[1])) {
    std::fprintf(stderr, "no such command: %s\nRun with --help for more information.\n", argv[1]);
    return EXIT_USAGE;
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& failure) {
    return app.exit(failure) == 0 ? EXIT_IN_STEP : EXIT_USAGE;
  }
  // The answer counts only when it reached its reader, a full disk behind standard output included.
  if (std::fflush(stdout) != 0) {
    std::perror("error: standard output");
    if (exit_code == EXIT_IN_STEP) return EXIT_FAILED;
  }
  return exit_code;
}
