#pragma once

#include <exception>
#include <string>

#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {

/// Class name of a failure as events and messages print it; for an exception from outside the family, the
/// nearest host kind.
std::string failure_type_name(const std::exception& failure);

/// The host kind for the `errno` value of a local operation: `FileNotFoundError` for ENOENT, `OSError`
/// otherwise. A remote file system may give the network's numbers too; they are no failure of a request,
/// which would be repeated. The text reads "{what}: {operating-system text}".
[[noreturn]] void throw_os_error(int error_number, const std::string& what);

}  // namespace tidalcrest::sync
