#pragma once

#include <functional>

#include "host/seams.hpp"
#include "transport/http_types.hpp"

namespace tidalcrest::sync {

/// One attempt at a request. The body of its result is empty when it has gone to a sink.
using RequestAttempt = std::function<HttpResult()>;

/// Repeats `attempt` until it gives an answer. There is no attempt limit and no deadline: network failures
/// and transient statuses repeat under the backoff policy, each announced by events. A permanent status is an
/// answer as well, with the body of the error.
///
/// Throws `SyncUnavailableError` when a transient status says that it is not retryable, the backoff module's
/// cancelled exception when a stop cuts a wait, and what is no `OSError` of the attempt unchanged.
HttpResult _request_with_sync_retries(const Request& request, const RequestAttempt& attempt,
                                      const Seams& seams);

}  // namespace tidalcrest::sync
