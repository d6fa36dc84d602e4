#pragma once

#include <string>

#include "host/unusable.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {

/// Gives what `call` gives. What a contained file operation or a sibling validator throws for something
/// unusable (`OSError`, `TypeError`, `ValueError`) becomes a `SyncError` "{what_failed}: {its text}",
/// chained.
template <class Call>
auto wrap_unusable(const std::string& what_failed, Call call) {
  const auto wrapped = [&](const std::exception& failure) {
    return SyncError(what_failed + ": " + failure.what());
  };
  try {
    return call();
  } catch (const Failure& failure) {
    if (!is_unusable(failure)) throw;
    throw wrapped(failure);
  }
}

}  // namespace tidalcrest::sync
