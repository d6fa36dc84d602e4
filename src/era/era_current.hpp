#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "tidalcrest/sync/document.hpp"
#include "transport/manager_http.hpp"

namespace tidalcrest::sync {

/// Address of a market's era-current endpoint.
std::string _market_era_current_url(const std::string& server_url, std::int64_t market_id);

/// Brings the two accepted shapes of an era-current response, the flat one and the wrapper with the key
/// "era", to one: an era config with "era_number", "state", "next_closing_at" and "min_library_version" as
/// far as the server gave them. What is no JSON object becomes an empty config.
Document _normalize_era_current_response(const Document& data);

/// Parses an era-current body and normalises it. Throws `ValueError` for a body that is no JSON text.
Document era_config_of(std::string_view body);

/// What the server says of the market's era at this moment, as the gates of a transition ask it. The server
/// may move on at any time, so nothing is remembered.
class ActiveEra {
 public:
  ActiveEra(std::string server_url, std::int64_t market_id, const ManagerHttp& http)
      : _server_url(std::move(server_url)), _market_id(market_id), _http(http) {}

  struct Answer {
    std::int64_t active_era_number = 0;
    Document era_config;
  };
  /// The open era; one in state "closing" only where `allow_closing`. Throws `EraError` for everything else,
  /// and what a request throws.
  Answer _fetch_active_era_for_transition(bool allow_closing = false) const;
  /// Requires the server's era to be exactly the expected one, else `EraError`; gives its config.
  Document _confirm_active_era(const Document& expected_era_number, bool allow_closing = false) const;
  /// The superseding era; absent when the server still has the expected one. `EraError` for an earlier one.
  std::optional<std::int64_t> _check_transition_superseded(const Document& expected_era_number,
                                                           bool allow_closing = false) const;

 private:
  const std::string _server_url;
  const std::int64_t _market_id;
  const ManagerHttp& _http;
};

}  // namespace tidalcrest::sync
