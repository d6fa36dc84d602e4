#pragma once

#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {

/// Gives what `call` gives; a `TypeError` or `ValueError` of it becomes a `ManifestError` with its text,
/// chained.
template <class Call>
auto as_manifest_error(Call call) {
  try {
    return call();
  } catch (const TypeError& failure) {
    throw ManifestError(failure.what());
  } catch (const ValueError& failure) {
    throw ManifestError(failure.what());
  }
}

}  // namespace tidalcrest::sync
