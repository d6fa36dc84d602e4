#include "era/era_current.hpp"

#include <fmt/format.h>

#include "host/integer.hpp"
#include "host/json.hpp"
#include "host/text.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

ActiveEra::Answer parse_answer(const std::string& body) {
  try {
    ActiveEra::Answer answer;
    answer.era_config = era_config_of(body);
    const Document* era_number = find_member(answer.era_config, "era_number");
    answer.active_era_number = to_int(era_number != nullptr ? *era_number : Document());
    return answer;
  } catch (const std::exception&) {
    throw EraError("Failed to parse active era response during transition");
  }
}

void require_open(const ActiveEra::Answer& answer, bool allow_closing) {
  const Document* found = find_member(answer.era_config, "state");
  const Document state = found != nullptr ? *found : Document();
  if (state == "active" || (allow_closing && state == "closing")) return;
  throw EraError(fmt::format("Active era confirmation for era_number={} returned state={}",
                             answer.active_era_number, text::repr(state)));
}

EraError mismatch(std::int64_t active, std::int64_t expected) {
  return EraError(fmt::format("Active era_number={} does not match requested transition era_number={}",
                              active, expected));
}

}  // namespace

std::string _market_era_current_url(const std::string& server_url, std::int64_t market_id) {
  return server_url + "/market/" + std::to_string(market_id) + "/era/current";
}

Document _normalize_era_current_response(const Document& data) {
  if (!data.is_object()) return Document::object();
  const Document* era = find_member(data, "era");
  if (era == nullptr) return data;
  const Document* wrapper_state = find_member(data, "state");
  if (!era->is_object()) {
    return {{"era_number", nullptr},
            {"state", wrapper_state != nullptr ? *wrapper_state : Document("between_eras")}};
  }
  Document config = *era;
  if (find_member(config, "state") == nullptr && wrapper_state != nullptr && !wrapper_state->is_null()) {
    config["state"] = *wrapper_state;
  }
  return config;
}

Document era_config_of(std::string_view body) { return _normalize_era_current_response(parse_json(body)); }

ActiveEra::Answer ActiveEra::_fetch_active_era_for_transition(bool allow_closing) const {
  const HttpResult response = _http._http_get(_market_era_current_url(_server_url, _market_id));
  if (response.status != 200) {
    throw EraError(fmt::format("Failed to confirm active era: HTTP {}", response.status));
  }
  Answer answer = parse_answer(response.body);
  require_open(answer, allow_closing);
  return answer;
}

Document ActiveEra::_confirm_active_era(const Document& expected_era_number, bool allow_closing) const {
  Answer answer = _fetch_active_era_for_transition(allow_closing);
  const std::int64_t expected = to_int(expected_era_number);
  if (answer.active_era_number != expected) throw mismatch(answer.active_era_number, expected);
  return std::move(answer.era_config);
}

std::optional<std::int64_t> ActiveEra::_check_transition_superseded(const Document& expected_era_number,
                                                                    bool allow_closing) const {
  const std::int64_t active = _fetch_active_era_for_transition(allow_closing).active_era_number;
  const std::int64_t expected = to_int(expected_era_number);
  if (active > expected) return active;
  if (active != expected) throw mismatch(active, expected);
  return std::nullopt;
}

}  // namespace tidalcrest::sync
