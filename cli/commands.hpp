#pragma once

#include <CLI/CLI.hpp>

namespace tidalcrest::cli {

// Each adds one command to the program; run by the parser, the command stores its exit code.

void add_sync_command(CLI::App& app, int& exit_code);
void add_watch_command(CLI::App& app, int& exit_code);
void add_status_command(CLI::App& app, int& exit_code);
void add_snapshot_command(CLI::App& app, int& exit_code);
void add_verify_command(CLI::App& app, int& exit_code);
void add_repair_command(CLI::App& app, int& exit_code);
void add_features_command(CLI::App& app, int& exit_code);
void add_gc_command(CLI::App& app, int& exit_code);
void add_cleanup_eras_command(CLI::App& app, int& exit_code);

}  // namespace tidalcrest::cli
