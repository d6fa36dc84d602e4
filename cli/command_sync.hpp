#pragma once

#include <CLI/CLI.hpp>

namespace tidalcrest::cli {

/// `tidalcrest-sync sync`: one sync, then the end.
void add_sync_command(CLI::App& app, int& exit_code);

}  // namespace tidalcrest::cli
