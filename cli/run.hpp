#pragma once

#include <functional>
#include <memory>
#include <string>

#include "arguments.hpp"
#include "display.hpp"
#include "exit_code.hpp"
#include "tidalcrest/sync/document.hpp"

namespace tidalcrest::cli {

using CommandBody = std::function<ExitCode(const std::shared_ptr<Display>& display)>;

inline constexpr const char* INTERRUPTED_TEXT = "Stopped. The published cohort is as it was.";

/// Runs the body of one command. Standard error becomes a display and the log's sink; Ctrl-C and SIGTERM
/// become a stop request that every wait of the body hears. A failure is told, as an object with `--json`,
/// and turned into its exit code. `interrupted_text` says what a stopped command left behind.
ExitCode run_command(const CommonArguments& arguments, const CommandBody& body,
                     const std::function<std::string(const Display&)>& interrupted_text = {});

/// While another process works on the directory, says so and waits for its end. Throws `SyncBackoffCancelled`
/// when stopped, `FileNotFoundError`, `ValueError`, `OSError`.
void wait_for_other_processes(const CommonArguments& arguments, Display& display);

/// One line on standard output. Paths need not be UTF-8; JSON must be.
void print_json(const sync::Document& document);

}  // namespace tidalcrest::cli
