#pragma once

#include <utility>

namespace tidalcrest::sync {

/// Makes an object with static storage that is not destroyed when the process ends. A host may return from
/// `main` while managers run: their threads go on until the last moment, and what they use has to be whole.
template <class Object, class... Args>
Object& never_destroyed(Args&&... args) {
  return *new Object(std::forward<Args>(args)...);
}

}  // namespace tidalcrest::sync
