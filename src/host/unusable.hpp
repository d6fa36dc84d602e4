#pragma once

#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {

/// Whether this is an `OSError`, a `TypeError` or a `ValueError`: what file operations and validators throw
/// for something that cannot be used.
inline bool is_unusable(const Failure& failure) noexcept {
  return dynamic_cast<const OSError*>(&failure) != nullptr ||
         dynamic_cast<const TypeError*>(&failure) != nullptr ||
         dynamic_cast<const ValueError*>(&failure) != nullptr;
}

}  // namespace tidalcrest::sync
