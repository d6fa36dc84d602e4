#include "fuzz/targets.hpp"

#include "tidalcrest/sync/errors.hpp"
#include "tidalcrest/sync/log.hpp"

namespace tidalcrest::fuzz {

const std::vector<Target>& targets() {
  static const std::vector<Target> all = {
      {"manifest", feed_manifest},
      {"paths", feed_paths},
      {"signals_index", feed_signals_index},
      {"vocabulary", feed_vocabulary},
      {"rotation", feed_rotation},
      {"completion", feed_completion},
      {"hash_cache", feed_hash_cache},
      {"seed_sidecar", feed_seed_sidecar},
      {"curl_output", feed_curl_output},
      {"error_body", feed_error_body},
      {"version_answer", feed_version_answer},
      {"json", feed_json},
  };
  return all;
}

void feed(const Target& target, std::string_view bytes) {
  try {
    target.feed(bytes);
  } catch (const sync::Failure&) {
    // Refused, as it should be.
  }
}

std::vector<std::string> parts_of(std::string_view bytes, std::size_t count) {
  std::vector<std::string> parts;
  while (parts.size() + 1 < count) {
    const auto zero = bytes.find('\0');
    parts.emplace_back(bytes.substr(0, zero));
    bytes = zero == std::string_view::npos ? std::string_view() : bytes.substr(zero + 1);
  }
  parts.emplace_back(bytes);
  return parts;
}

}  // namespace tidalcrest::fuzz
