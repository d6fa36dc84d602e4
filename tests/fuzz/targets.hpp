#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

/// What is fed with arbitrary bytes. A target refuses them with a failure of the family or takes them;
/// everything else (another exception, a broken property, a crash) is a finding.
namespace tidalcrest::fuzz {

struct Target {
  std::string name;
  void (*feed)(std::string_view bytes);
};

const std::vector<Target>& targets();
/// Feeds one input. Throws what is no failure of the family, and `std::logic_error` for a broken property.
void feed(const Target& target, std::string_view bytes);

/// A property that holds for every input. Deliberately no failure of the family.
inline void require(bool holds, const char* property) {
  if (!holds) throw std::logic_error(property);
}
/// The parts of an input of several documents, parted by a zero byte; always `count` of them.
std::vector<std::string> parts_of(std::string_view bytes, std::size_t count);

// Documents of the distribution.
void feed_manifest(std::string_view bytes);
void feed_paths(std::string_view bytes);
void feed_signals_index(std::string_view bytes);
void feed_vocabulary(std::string_view bytes);
// Files that the client keeps.
void feed_rotation(std::string_view bytes);
void feed_completion(std::string_view bytes);
void feed_hash_cache(std::string_view bytes);
void feed_seed_sidecar(std::string_view bytes);
// Answers of servers.
void feed_curl_output(std::string_view bytes);
void feed_error_body(std::string_view bytes);
void feed_version_answer(std::string_view bytes);
// All of them.
void feed_json(std::string_view bytes);

}  // namespace tidalcrest::fuzz
