#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "download/manifest_generation.hpp"
#include "download/staged_file.hpp"
#include "download/supersede_probe.hpp"
#include "transport/manager_http.hpp"

namespace tidalcrest::sync {

/// What a transfer is to bring, and from where. Lives as long as the transfer.
struct TransferTerms {
  const std::string& file_path;
  const ManifestGeneration& generation;
  std::string url;
  std::string expected_sha;        ///< empty: any content
  std::int64_t expected_size = 0;  ///< 0 or below: any size
  const ManagerHttp& http;
  const SupersedeProbe& probe;
};

using EventFields = std::vector<std::pair<std::string, Document>>;

/// One attempt: asks for what the staging file lacks. Returns when the server has given all that it would;
/// the size and digest checks decide about it.
class TransferAttempt {
 public:
  TransferAttempt(const TransferTerms& terms, std::int64_t attempt, StagedFile& staged) noexcept
      : _terms(terms), _attempt(attempt), _staged(staged) {}

  void fetch() const;
  /// Drops the staged bytes, which belong to a dead generation, and throws `ManifestSupersededError`, when
  /// the server has advanced past the file's manifest.
  void abandon_if_superseded(const std::string& reason, EventFields fields) const;
  /// `_log_sync_event` with the one-based count of this attempt.
  void log_event(const std::string& event_type, const std::string& reason, const EventFields& fields) const;

 private:
  void _stream_whole() const;
  void _fetch_chunks(std::int64_t chunk_bytes) const;
  void _resume_small() const;
  void _fetch_small() const;
  std::int64_t _get(std::int64_t range_start, std::int64_t range_end, BodyRule rule) const;
  std::int64_t _most_bytes() const;
  EventFields _range_fields(std::int64_t range_start, std::int64_t range_end) const;
  [[noreturn]] void _reset_resume(EventFields fields) const;

  const TransferTerms& _terms;
  const std::int64_t _attempt;
  StagedFile& _staged;
};

/// The pair of fields that names a generation; absent members are left out by the log.
EventFields generation_fields(const ManifestGeneration& generation);

}  // namespace tidalcrest::sync
