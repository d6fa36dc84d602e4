#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "host/seams.hpp"
#include "siblings/distribution/pinned_root.hpp"
#include "transport/http_types.hpp"

namespace tidalcrest::sync {

/// Whether an address, trailing slashes removed, is the one of the manifest version poll.
bool _is_manifest_version_url(const std::string& url);

/// The only road to the network: GET with and without credentials, repeated under the backoff policy, through
/// the in-process client or the curl executable. Re-entrant; holds no lock across a request.
///
/// A stop request of the calling thread's backoff context ends a wait or a transfer with the backoff module's
/// cancelled exception. An address that may not carry credentials is a `ValueError`, also on the public path.
class HttpClient {
 public:
  explicit HttpClient(Seams seams);
  ~HttpClient();

  /// An unranged answer is buffered up to 512 MiB; a larger one is an `OSError`, at once and not repeated.
  HttpResult _http_get(const std::string& url, const std::string& token, std::int64_t range_start = 0,
                       std::int64_t range_end = -1);
  /// The same without a range and with the timeout of the version poll.
  HttpResult _http_get_manifest_version(const std::string& url, const std::string& token);
  /// `transport` empty means absent.
  HttpResult _http_get_public(const std::string& url, std::int64_t range_start = 0,
                              std::int64_t range_end = -1, const std::string& transport = {});
  /// As `_http_get_public`, the body of a successful answer going to `sink` while it arrives. An answer of
  /// 400 or above reaches no sink.
  HttpHead _http_get_public_to(const std::string& url, std::int64_t range_start, std::int64_t range_end,
                               const std::string& transport, BodySink& sink);
  /// One attempt, no retry; throws `HTTPError` for 400 and above, `URLError`, `TimeoutError`, `OSError`.
  HttpResult _open_request(const Request& request, double timeout_seconds, const std::string& transport = {});
  /// One attempt, streaming, no retry. A status of 400 or above is a value. Network failures are
  /// `ConnectionError`; what has arrived stays in the file. With the in-process client the body goes through
  /// `sink`; with the curl executable it goes straight to `file` at its current offset and the return value's
  /// `bypassed_sink` is true.
  struct StreamResult {
    HttpHead head;
    bool bypassed_sink = false;
  };
  StreamResult _download_request_to_file(const Request& request, client_manifest::UpdatableFile& file,
                                         BodySink& sink, double timeout_seconds,
                                         const std::string& transport = {});

 private:
  struct Internals;
  std::unique_ptr<Internals> _internals;
};

}  // namespace tidalcrest::sync
