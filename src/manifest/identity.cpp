#include "manifest/identity.hpp"

#include <fmt/format.h>

#include "host/integer.hpp"
#include "host/json.hpp"
#include "host/text.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

std::int64_t require_market(const Document* market_id, std::int64_t expected_market_id,
                            const std::string& label) {
  const std::int64_t expected = _coerce_agent_market_id(expected_market_id);
  if (market_id == nullptr || !market_id->is_number_integer() || *market_id != expected) {
    throw ManifestError(
        fmt::format("{} market_id must exactly match configured market_id={}", label, expected));
  }
  return expected;
}

}  // namespace

std::int64_t _coerce_agent_market_id(const Document& value) {
  const auto market_id = try_int(value);
  if (!market_id || *market_id <= 0) {
    throw ValueError(fmt::format("market_id must be a positive integer, got {}", text::repr(value)));
  }
  return *market_id;
}

std::int64_t _require_manifest_market_identity(const Document& manifest, std::int64_t expected_market_id,
                                               const std::string& label) {
  return require_market(find_member(manifest, "market_id"), expected_market_id, label);
}

std::int64_t _require_manifest_market_identity(const Manifest& manifest, std::int64_t expected_market_id,
                                               const std::string& label) {
  return require_market(&manifest.market_id(), expected_market_id, label);
}

}  // namespace tidalcrest::sync
