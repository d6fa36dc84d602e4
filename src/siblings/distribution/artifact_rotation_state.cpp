#include "siblings/distribution/artifact_rotation_state.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <string_view>

#include "host/integer.hpp"
#include "host/json.hpp"
#include "host/path_set.hpp"
#include "host/text.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync::artifact_rotation {
namespace {

constexpr const char* PAYLOAD_KEYS[] = {
    "schema_version", "generation", "seed", "rng_state", "algorithm", "reason", "active_relative_paths"};

// Reads one payload; every failure names the source and the key.
class PayloadReader {
 public:
  PayloadReader(const Document& payload, const std::string& source) : _payload(payload), _source(source) {
    if (!payload.is_object()) refuse("the payload", "an object", payload);
  }

  void require_exactly_the_known_keys() const {
    for (const char* key : PAYLOAD_KEYS) at(key);
    for (const auto& [key, value] : _payload.get_ref<const Document::object_t&>()) {
      const auto is_key = [&key = key](const char* known) { return key == known; };
      if (std::none_of(std::begin(PAYLOAD_KEYS), std::end(PAYLOAD_KEYS), is_key)) {
        fail(fmt::format("{} is not a known key", text::repr(std::string_view(key))));
      }
    }
  }

  std::int64_t integer(const char* key) const {
    const Document& value = at(key);
    const auto number = value.is_number_integer() ? try_int(value) : std::nullopt;
    if (!number) refuse(key, "a 64-bit integer", value);
    return *number;
  }

  const std::string& string(const char* key) const {
    const Document& value = at(key);
    if (!value.is_string()) refuse(key, "a string", value);
    return value.get_ref<const std::string&>();
  }

  std::vector<std::string> strings(const char* key) const {
    const Document& value = at(key);
    if (!value.is_array()) refuse(key, "a list of strings", value);
    std::vector<std::string> items;
    items.reserve(value.size());
    for (const auto& item : value) {
      if (!item.is_string()) refuse(key, "a list of strings, and an item is", item);
      items.push_back(item.get_ref<const std::string&>());
    }
    return items;
  }

  [[noreturn]] void fail(const std::string& why) const {
    throw RotationStatePayloadError("invalid rotation state in " + _source + ": " + why);
  }

 private:
  const Document& at(const char* key) const {
    const Document* value = find_member(_payload, key);
    if (value == nullptr) fail(fmt::format("{} is missing", key));
    return *value;
  }

  [[noreturn]] void refuse(const char* what, const char* wanted, const Document& value) const {
    fail(fmt::format("{} must be {}, got {}", what, wanted, text::type_name(value)));
  }

  const Document& _payload;
  const std::string& _source;
};

}  // namespace

std::optional<std::string> rotation_state_fault(const RotationState& state) {
  if (state.generation < 0) return fmt::format("generation must not be negative, got {}", state.generation);
  PathSet seen;
  seen.reserve(state.active_relative_paths.size());
  for (const auto& path : state.active_relative_paths) {
    if (path.empty()) return "active_relative_paths holds an empty path";
    if (!text::is_valid_utf8(path))
      return "active_relative_paths holds a path that is not UTF-8: " + text::repr(path);
    if (!seen.insert(path).second) return "active_relative_paths holds a path twice: " + text::repr(path);
  }
  return std::nullopt;
}

Document rotation_state_payload(const RotationState& state, std::int64_t schema_version) {
  if (const auto fault = rotation_state_fault(state)) {
    throw RotationStatePayloadError("rotation state cannot be written: " + *fault);
  }
  return {{"schema_version", schema_version},
          {"generation", state.generation},
          {"seed", state.seed},
          {"rng_state", state.rng_state},
          {"algorithm", state.algorithm},
          {"reason", state.reason},
          {"active_relative_paths", state.active_relative_paths}};
}

RotationState rotation_state_from_payload(const Document& payload, const std::string& source,
                                          std::int64_t schema_version) {
  const PayloadReader reader(payload, source);
  const std::int64_t version = reader.integer("schema_version");
  if (version != schema_version)
    reader.fail(fmt::format("schema_version must be {}, got {}", schema_version, version));
  reader.require_exactly_the_known_keys();
  RotationState state;
  state.generation = reader.integer("generation");
  state.seed = reader.integer("seed");
  state.rng_state = reader.string("rng_state");
  state.algorithm = reader.string("algorithm");
  state.reason = reader.string("reason");
  state.active_relative_paths = reader.strings("active_relative_paths");
  if (const auto fault = rotation_state_fault(state)) reader.fail(*fault);
  return state;
}

}  // namespace tidalcrest::sync::artifact_rotation
