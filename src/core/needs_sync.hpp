#pragma once

#include <cstdint>
#include <string>

#include "cohort/active_view.hpp"
#include "integrity/completeness.hpp"
#include "rotation/planner.hpp"
#include "transport/manager_http.hpp"

namespace tidalcrest::sync {

/// The question that the poll loop asks before each sync. Absence of proof counts as a need to sync.
class NeedsSync {
 public:
  struct Collaborators {
    const ManagerHttp& http;
    const RotationPlanner& planner;
    const CompletenessTest& completeness;
    const ActiveViewHolder& active;
  };
  NeedsSync(std::string data_dir, std::string server_url, std::int64_t market_id, Collaborators collaborators)
      : _data_dir(std::move(data_dir)),
        _server_url(std::move(server_url)),
        _market_id(market_id),
        _with(collaborators) {}

  /// Lightweight sync check using version plus local integrity state: one small request, one stat per member.
  /// Takes no lock. Throws `SyncUnavailableError`, `SyncBackoffCancelled`, and `ManifestError` or
  /// `ValueError` for an answer of status 200 that is no version answer of this market.
  bool needs_sync() const;

 private:
  bool _answer_agrees(const Document& version_data, const Manifest& manifest) const;

  const std::string _data_dir;
  const std::string _server_url;
  const std::int64_t _market_id;
  const Collaborators _with;
};

}  // namespace tidalcrest::sync
