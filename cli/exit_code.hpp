#pragma once

#include <exception>

namespace tidalcrest::cli {

/// What a run of the command line ends with. Programs may rely on these numbers.
enum ExitCode : int {
  EXIT_IN_STEP = 0,
  EXIT_FAILED = 1,
  EXIT_USAGE = 2,
  EXIT_UNAVAILABLE = 3,  ///< a dependency stayed away
  EXIT_REFUSED = 4,      ///< downgrade, era, identity or market
  EXIT_DISK_SPACE = 5,
  EXIT_INTERRUPTED = 130,
};

/// The code for a failure that ended a command.
ExitCode exit_code_for(const std::exception& failure);

}  // namespace tidalcrest::cli
