#include "transport/local_failure.hpp"

#include "siblings/distribution/sync_backoff.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {

void throw_stop_requested() {
  try {
    sync_backoff::cancel(*sync_backoff::module_seam().current());
  } catch (...) {
    throw LocalFailure{std::current_exception()};
  }
}

}  // namespace tidalcrest::sync
