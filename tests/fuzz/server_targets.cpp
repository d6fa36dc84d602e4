#include "core/version_answer.hpp"
#include "era/era_current.hpp"
#include "era/library_floor.hpp"
#include "fuzz/targets.hpp"
#include "host/integer.hpp"
#include "host/json.hpp"
#include "host/plain_json.hpp"
#include "host/seams.hpp"
#include "host/text.hpp"
#include "manifest/identity.hpp"
#include "tidalcrest/sync/errors.hpp"
#include "transport/curl_transport.hpp"
#include "transport/events.hpp"
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
const Registered CURL_OUTPUT{"curl_output", feed_curl_output};

void feed_error_body(std::string_view bytes) {
  static const Seams seams = Seams::real();
  try {
    const Document details = _parse_sync_error_body(std::string(bytes));
    require(details.is_object(), "an error body is no object");
    const std::string url = "https://api.example/data/manifest";
    _sync_unavailable_from(url, 1, {503}, {}, details);
    // A warning, which no earlier one of its kind keeps from being emitted.
    _emit_sync_unavailable_status("sync_unavailable_status", url, {503}, {}, details, 0, seams);
  } catch (const Failure&) {
    require(false, "an error body keeps its failure from being told");
  }
}
const Registered ERROR_BODY{"error_body", feed_error_body};

void feed_version_answer(std::string_view bytes) {
  const Document era = era_config_of(bytes);
  require(era.is_object(), "an era config is no object");
  try {
    LibraryFloor floor(deployment::module_seam().current());
    floor.look_for_update();
    floor.require(era, "7");
  } catch (const LibraryUpdateRequired&) {
    // The version answer is fed all the same.
  }
  const Document version = parse_json(bytes);
  manifest_hash_hint(version);
  try_int(version);
  _require_manifest_market_identity(version, 1, "fuzzed answer");
  const Document* number = find_member(version, "version");
  to_int(number != nullptr ? *number : Document());
}
const Registered VERSION_ANSWER{"version_answer", feed_version_answer};

void feed_json(std::string_view bytes) {
  if (!text::is_valid_utf8(bytes)) return;
  const auto document = read_plain_json(bytes);
  if (!document) return;
  // Accepted duplicates and other liberties of the library are not plain.
  const Document twin = Document::parse(bytes, nullptr, /*allow_exceptions=*/false);
  require(!twin.is_discarded() && *document == twin && document->dump() == twin.dump(),
          "the two ways to read JSON differ");
  require(parse_strict_json(document->dump()) == twin, "a document does not survive being written and read");
}
const Registered JSON{"json", feed_json};

}  // namespace tidalcrest::fuzz
