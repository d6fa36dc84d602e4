#pragma once

namespace tidalcrest::cli {

/// Turns SIGINT and SIGTERM into a request to stop; a second one ends the process at once.
void install_interrupt_handler();

/// Whether a stop was requested. Safe on any thread.
bool interrupted() noexcept;

}  // namespace tidalcrest::cli
