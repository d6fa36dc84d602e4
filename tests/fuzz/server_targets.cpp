#include "core/version_answer.hpp"
#include "era/era_current.hpp"
#include "fuzz/targets.hpp"
#include "host/integer.hpp"
#include "host/json.hpp"
#include "host/text.hpp"
#include "manifest/identity.hpp"
#include "tidalcrest/sync/errors.hpp"
#include "transport/curl_transport.hpp"
#include "transport/settings.hpp"

namespace tidalcrest::fuzz {

using namespace sync;

void feed_curl_output(std::string_view bytes) {
  const auto parts = parts_of(bytes, 2);
  const HeaderMap headers = _parse_curl_headers(parts[0]);
  for (const auto& [name, value] : headers.items()) {
    require(name.find('\n') == std::string::npos && value.find('\n') == std::string::npos,
            "a header holds a line break");
    require(text::strip(value) == value && text::strip(name) == name, "a header is not stripped");
  }
  _curl_status_from_stdout(parts[1], parts[0]);
}

void feed_error_body(std::string_view bytes) {
  try {
    require(_parse_sync_error_body(std::string(bytes)).is_object(), "an error body is no object");
  } catch (const Failure&) {
    require(false, "the parser of error bodies throws");
  }
}

void feed_version_answer(std::string_view bytes) {
  const Document era = era_config_of(bytes);
  require(era.is_object(), "an era config is no object");
  const Document version = parse_json(bytes);
  manifest_hash_hint(version);
  try_int(version);
  _require_manifest_market_identity(version, 1, "fuzzed answer");
  const Document* number = find_member(version, "version");
  to_int(number != nullptr ? *number : Document());
}

}  // namespace tidalcrest::fuzz
