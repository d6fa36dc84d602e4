#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tidalcrest/sync/document.hpp"

namespace tidalcrest::sync {

inline constexpr const char* SYNC_USER_AGENT = "tidalcrest-sync/0.0.3";
inline constexpr const char* SYNC_HTTP_TRANSPORT = "auto";
inline constexpr double SYNC_CURL_CONNECT_TIMEOUT_SECONDS = 5.0;
inline constexpr std::int64_t SYNC_CURL_LOW_SPEED_LIMIT_BYTES_PER_SECOND = 1024;
inline constexpr std::int64_t SYNC_CURL_RETRIES = 4;
inline constexpr std::int64_t SYNC_CURL_RETRY_DELAY_SECONDS = 0;
inline constexpr double SYNC_HTTP_TIMEOUT_SECONDS = 30.0;
inline constexpr double SYNC_MANIFEST_VERSION_HTTP_TIMEOUT_SECONDS = 30.0;
inline constexpr std::int64_t SYNC_HTTP_CHUNK_BYTES = 67108864;
inline constexpr std::int64_t SYNC_HTTP_RESPONSE_READ_BYTES = 65536;
inline constexpr std::int64_t SYNC_MAX_CONCURRENCY = 8;
inline constexpr std::int64_t TRANSIENT_HTTP_STATUSES[] = {408, 425, 429, 500, 502, 503, 504};
/// Host of the public data origin, a constant of the deployment. Its subdomains count as well.
inline constexpr const char* PUBLIC_DATA_ORIGIN_HOST = "data.tidalcrest.example";
inline constexpr double SYNC_PARALLEL_TIMEOUT_SECONDS =
    300.0;  ///< consulted by no path, see `_sync_parallel_timeout_seconds`

double _sync_http_timeout_seconds();
double _sync_manifest_version_http_timeout_seconds();
std::int64_t _sync_http_response_read_bytes();

/// The three knobs of a manager, normalised: null and blank text give the default, what cannot be read is a
/// `ValueError`.
std::string _sync_http_transport(const Document& raw = nullptr);
std::int64_t _sync_http_chunk_bytes(const Document& raw = nullptr);
std::int64_t _sync_max_concurrency(const Document& raw = nullptr);
/// Always absent: a parallel download has no overall deadline, per-request timeouts and the stop signal end
/// it.
std::optional<double> _sync_parallel_timeout_seconds(std::int64_t file_count, std::int64_t max_workers);
std::string _sync_parallel_timeout_description(std::optional<double> timeout_seconds);
bool _should_retry_http_status(const Document& status);
/// Throws `AuthError` for 401, `SyncError` for a transient status, `PermanentDownloadError` for every other.
[[noreturn]] void _raise_download_http_status(const std::string& file_path, const Document& status);
/// The JSON object that the service may send with an error status; an empty object for everything else. Never
/// throws.
Document _parse_sync_error_body(const std::string& body);

}  // namespace tidalcrest::sync
