#include "download/transfer_attempt.hpp"

#include <fmt/format.h>

#include <algorithm>

#include "transport/events.hpp"
#include "transport/settings.hpp"

namespace tidalcrest::sync {
namespace {

constexpr std::int64_t OPEN_END = -1;
constexpr std::int64_t SURPLUS_BYTES = 1048576;

Document value_or_null(const std::optional<std::int64_t>& value) {
  return value ? Document(*value) : Document();
}

void add_all(EventFields& fields, EventFields more) {
  fields.insert(fields.end(), std::make_move_iterator(more.begin()), std::make_move_iterator(more.end()));
}

}  // namespace

EventFields generation_fields(const ManifestGeneration& generation) {
  return {{"manifest_version", value_or_null(generation.version)},
          {"manifest_era_number", value_or_null(generation.era_number)}};
}

void TransferAttempt::fetch() const {
  const std::int64_t chunk_bytes = _terms.http.knobs().chunk_bytes();
  if (_terms.expected_size > chunk_bytes) {
    if (_staged.size() == 0) _stream_whole();
    _fetch_chunks(chunk_bytes);
  } else if (_staged.size() > 0) {
    _resume_small();
  } else {
    _fetch_small();
  }
  _staged.flush();
}

void TransferAttempt::_stream_whole() const {
  const Request request{_terms.url, {{"User-Agent", SYNC_USER_AGENT}}};
  StagingSink sink(_staged, {.takes_whole = true}, _most_bytes());
  HttpClient::StreamResult answer;
  try {
    answer = _terms.http.client()._download_request_to_file(
        request, _staged.file(), sink, _sync_http_timeout_seconds(), _terms.http.knobs().transport());
  } catch (const MoreThanWanted&) {
    return;
  }
  if (answer.head.status != 200) {
    _staged.drop();
    _raise_download_http_status(_terms.file_path, answer.head.status);
  }
  if (!answer.bypassed_sink) return;
  _staged.read_back();
  // The external client repeats a broken answer by itself, and writes the next one behind it.
  if (_staged.size() > _terms.expected_size && _staged.hexdigest() != _terms.expected_sha) {
    _staged.keep_end_with(_terms.expected_size, _terms.expected_sha);
  }
}

void TransferAttempt::_fetch_chunks(std::int64_t chunk_bytes) const {
  while (_staged.size() < _terms.expected_size) {
    const std::int64_t chunk_start = _staged.size();
    const std::int64_t chunk_end =
        chunk_start + std::min(_terms.expected_size - chunk_start, chunk_bytes) - 1;
    const BodyRule rule{.takes_part = true, .takes_whole = chunk_start == 0};
    const std::int64_t status = _get(chunk_start, chunk_end, rule);
    if (status == 206) {
      if (_staged.size() > chunk_start) continue;
      abandon_if_superseded("empty_range", _range_fields(chunk_start, chunk_end));
      return;
    }
    if (status == 200 && chunk_start == 0) return;  // the server ignored the range: this is the whole file
    if (status == 416 && _staged.size() > 0) _reset_resume(_range_fields(chunk_start, chunk_end));
    auto fields = _range_fields(chunk_start, chunk_end);
    fields.emplace_back("status", status);
    abandon_if_superseded(fmt::format("http_{}", status), std::move(fields));
    _raise_download_http_status(_terms.file_path, status);
  }
}

void TransferAttempt::_resume_small() const {
  const std::int64_t range_start = _staged.size();
  const std::int64_t status = _get(range_start, OPEN_END, {.takes_part = true, .takes_whole = true});
  if (status == 206 || status == 200) return;
  if (status == 416) _reset_resume(_range_fields(range_start, OPEN_END));
  _raise_download_http_status(_terms.file_path, status);
}

void TransferAttempt::_fetch_small() const {
  const std::int64_t status = _get(0, OPEN_END, {.takes_whole = true});
  if (status != 200) _raise_download_http_status(_terms.file_path, status);
}

std::int64_t TransferAttempt::_get(std::int64_t range_start, std::int64_t range_end, BodyRule rule) const {
  _staged.mark();
  StagingSink sink(_staged, rule, _most_bytes());
  HttpHead head;
  try {
    head = _terms.http._http_get_public_to(_terms.url, range_start, range_end, sink);
  } catch (const MoreThanWanted&) {
    return sink.status();
  }
  // What a broken answer had brought before this one is void with it.
  if (!rule.takes(head.status)) static_cast<void>(_staged.rewind());
  return head.status;
}

// A body without end must not fill the disk. A little more than declared is let through: the digest tells of
// it.
std::int64_t TransferAttempt::_most_bytes() const {
  std::int64_t most = 0;
  const bool known = _terms.expected_size > 0;
  return known && !__builtin_add_overflow(_terms.expected_size, SURPLUS_BYTES, &most) ? most : 0;
}

EventFields TransferAttempt::_range_fields(std::int64_t range_start, std::int64_t range_end) const {
  EventFields fields{
      {"expected_size", _terms.expected_size}, {"actual_size", _staged.size()}, {"range_start", range_start}};
  if (range_end != OPEN_END) fields.emplace_back("range_end", range_end);
  return fields;
}

void TransferAttempt::_reset_resume(EventFields fields) const {
  add_all(fields, generation_fields(_terms.generation));
  log_event("range_resume_reset", "http_416", fields);
  _staged.drop();
  throw SyncError(fmt::format("Download resume reset for {}: HTTP 416", _terms.file_path));
}

void TransferAttempt::abandon_if_superseded(const std::string& reason, EventFields fields) const {
  if (!_terms.probe._download_manifest_superseded(_terms.generation)) return;
  add_all(fields, generation_fields(_terms.generation));
  log_event("manifest_superseded", reason, fields);
  _staged.drop();
  _staged.close();
  throw ManifestSupersededError(
      fmt::format("Manifest advanced while downloading {}; refreshing before retry", _terms.file_path));
}

void TransferAttempt::log_event(const std::string& event_type, const std::string& reason,
                                const EventFields& fields) const {
  _log_sync_event(event_type, _terms.file_path, _attempt + 1, reason, fields);
}

}  // namespace tidalcrest::sync
