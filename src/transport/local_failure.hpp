#pragma once

#include <exception>

namespace tidalcrest::sync {

/// How a failure that is not the network's (a full disk, a stop request) travels through the handlers for
/// network failures. Thrown inside the transport room only; its public operations throw what it carries.
struct LocalFailure {
  std::exception_ptr failure;
};

/// Throws the backoff module's cancelled exception in this form.
[[noreturn]] void throw_stop_requested();

}  // namespace tidalcrest::sync
