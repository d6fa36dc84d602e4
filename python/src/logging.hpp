#pragma once

namespace tidalcrest::sync::python {

/// Lets the log of the core go to the logger named "tidalcrest.sync".
void log_to_python();

}  // namespace tidalcrest::sync::python
