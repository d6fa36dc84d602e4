#pragma once

#include <memory>
#include <string>

#include "transport/http_types.hpp"

namespace tidalcrest::sync {

/// The in-process HTTP client: keep-alive, HTTP/1.1 on plain http, HTTP/2 where TLS offers it. A request uses
/// one connection handle of a pool for its own duration, so that any number of threads may call at once.
///
/// Redirects are followed up to a bound. One that steps down from https to http, leaves http, holds user
/// information or exceeds the bound is not followed: it is then an `HTTPError` with its own status. The
/// `Authorization` header goes to the origin of the request and, after a redirect to any other origin
/// (scheme, host, port), to nobody. Loopback hosts are never reached through a proxy.
class InProcessClient {
 public:
  InProcessClient();
  ~InProcessClient();

  struct Answer {
    HttpHead head;
    std::string cut_short;  ///< why the body ended before its declared length; empty when it is whole
  };

  /// One GET; the body of an answer below 400 goes to `sink` in pieces while it arrives, also what came
  /// before a failure. Throws `HTTPError` for 400 and above, `TimeoutError` when the connection is not up or
  /// no byte comes for `timeout_seconds` (or only a trickle), `URLError` when no connection comes about,
  /// `ConnectionError` when one breaks, `ValueError` for a request that cannot be sent at all, `LocalFailure`
  /// for what the sink throws and for a stop request of the calling thread's backoff context.
  Answer perform(const Request& request, double timeout_seconds, BodySink& sink);

 private:
  class Pool;
  std::unique_ptr<Pool> _pool;
};

}  // namespace tidalcrest::sync
