#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "siblings/distribution/pinned_root.hpp"
#include "transport/http_types.hpp"

/// Public downloads through the `curl` executable, run as a child process without a shell. Credentials never
/// pass through a command line: a request with an `Authorization` header is never given to curl. Each call
/// has its own temporary directory and process; a stop request of the calling thread's backoff context ends
/// the process.
namespace tidalcrest::sync {

/// The lower-case host of a request; empty when there is none or it cannot be parsed.
std::string _request_host(const Request& request);
/// Whether the host is the public data origin or one of its subdomains.
bool _curl_auto_host(const Request& request);
/// The path of `curl` found on the search path.
std::optional<std::string> _find_curl_binary();
/// `transport` empty means absent, which is "auto".
bool _should_use_curl_transport(const Request& request, const std::string& transport = {});

/// The headers of the last block of a header dump, which holds one block per answer.
HeaderMap _parse_curl_headers(const std::string& text);
/// The status that curl wrote out, else the one of the last status line, else 0.
std::int64_t _curl_status_from_stdout(const std::string& standard_output, const std::string& headers_text);
/// The argument list; `output_options` differ between the two operations below.
std::vector<std::string> _curl_command(const std::string& curl, const Request& request,
                                       double timeout_seconds,
                                       const std::vector<std::string>& output_options);

/// One answer, its body handed to `sink` once it is complete. Throws `HTTPError` for 400 and above,
/// `URLError` when curl failed otherwise or is not there, `LocalFailure` for what the sink throws, for a
/// temporary volume that takes nothing more and for a stop request. curl is ended once the body is longer
/// than the sink takes.
HttpHead _curl_request(const Request& request, double timeout_seconds, BodySink& sink);
/// The body goes from curl straight into `file` at its current offset, whatever the status and also when the
/// transfer fails; no headers are collected. Throws `ConnectionError` when curl failed without an HTTP error
/// status or is not there, `OSError` when it could not write, `LocalFailure` on a stop request. With
/// `most_bytes` above 0 an answer that goes on for ever ends once the file holds that much for each of curl's
/// tries, as if it had ended there.
HttpHead _curl_download_to_file(const Request& request, client_manifest::UpdatableFile& file,
                                double timeout_seconds, std::int64_t most_bytes = 0);

}  // namespace tidalcrest::sync
