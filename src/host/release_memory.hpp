#pragma once

namespace tidalcrest::sync {

/// Empties a string or a container and gives its memory back; an assignment of nothing would keep it.
template <class Container>
void release_memory(Container& container) {
  Container().swap(container);
}

}  // namespace tidalcrest::sync
