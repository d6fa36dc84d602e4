#include <filesystem>
#include <optional>
#include <tuple>
#include <vector>

#include "fuzz/fed_file.hpp"
#include "fuzz/targets.hpp"
#include "host/digest.hpp"
#include "host/json.hpp"
#include "integrity/hash_cache_file.hpp"
#include "siblings/distribution/artifact_rotation_state.hpp"
#include "siblings/distribution/cohort_layout.hpp"
#include "siblings/distribution/completion_record.hpp"
#include "siblings/distribution/local_cohort.hpp"
#include "siblings/distribution/rotation_settings.hpp"
#include "siblings/distribution/shuffle_seed_state.hpp"
#include "support/temp_dir.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::fuzz {

using namespace sync;

namespace {

// What a parser makes of a text; absent when it refuses it.
template <class Parse>
auto accepted(const Parse& parse) -> std::optional<decltype(parse())> {
  try {
    return parse();
  } catch (const Failure&) {
    return std::nullopt;
  }
}

// A data directory whose selector holds the bytes of an input, and names a generation that is complete.
class SelectedBytes {
 public:
  void select(const std::string& bytes) {
    const std::string named = _data.path(local_cohort::generation_relative_root(bytes));
    std::filesystem::rename(_generation, named);
    _generation = named;
    _selector.set(bytes);
    _manifest.set(bytes);
    _record.set(local_cohort::build_completion_payload(bytes, {}, {}, {}).bytes);
  }
  std::string data_dir() const { return _data.path(); }

 private:
  const sync::testing::TempDir _data;
  std::string _generation = _data.path(local_cohort::generation_relative_root(""));
  const bool _made = std::filesystem::create_directories(_generation);  // before the files in it
  const FedFile _selector{_data.path(local_cohort::SELECTOR_FILE)};
  const FedFile _manifest{_generation + "/" + local_cohort::COHORT_MANIFEST_FILE};
  const FedFile _record{_generation + "/" + local_cohort::COHORT_COMPLETION_FILE};
};

void feed_selector(const std::string& bytes) {
  static SelectedBytes selected;
  selected.select(bytes);
  const auto selection = local_cohort::load_active_cohort(selected.data_dir(), /*required=*/false);
  require(selection != nullptr && *selection->manifest_bytes == bytes, "not the selected cohort is loaded");
}

}  // namespace

void feed_rotation(std::string_view bytes) {
  static const sync::testing::TempDir data;
  static const FedFile file(data.path(rotation_settings::ROTATION_SETTINGS_FILENAME));
  const auto parts = parts_of(bytes, 2);
  file.set(parts[0]);
  try {
    const auto settings = rotation_settings::load_rotation_settings(data.path(), Document::object());
    file.set(dump_json(settings.model_dump()));
    const auto again = rotation_settings::load_rotation_settings(data.path(), Document::object());
    require(again.rotation_seed == settings.rotation_seed && again.family == settings.family &&
                again.feature_budget_gb == settings.feature_budget_gb,
            "settings do not survive being written and read");
  } catch (const Failure&) {
    // The state is fed all the same.
  }
  const RotationState state =
      artifact_rotation::rotation_state_from_payload(parse_json(parts[1]), "fuzzed state", 1);
  const Document written = artifact_rotation::rotation_state_payload(state, 1);
  require(artifact_rotation::rotation_state_from_payload(written, "written state", 1) == state,
          "a state does not survive being written and read");
}
const Registered ROTATION{"rotation", feed_rotation};

void feed_completion(std::string_view bytes) {
  const std::string digest(64, '0');
  const auto parts = parts_of(bytes, 2);
  try {
    if (!parts[1].empty()) feed_selector(parts[1]);
  } catch (const Failure&) {
    // The record is fed all the same.
  }
  const auto parsed = [&](const std::string& text) {
    const auto members = local_cohort::parse_completion_record(text, digest, 10);
    std::vector<std::tuple<std::string, std::string, std::int64_t>> listed;
    for (const auto& path : members.active_relative_paths) {
      require(members.find(path) != nullptr, "a member has no identity");
      listed.emplace_back(path, "", 0);
    }
    for (const auto& member : members.artifact_identities)
      listed.emplace_back(member.path, member.sha256, member.size_bytes);
    return listed;
  };
  const auto members = parsed(parts[0]);
  // White space at the end makes the form a foreign one, which is read in the general way.
  require(accepted([&] { return parsed(parts[0] + " "); }) == members,
          "the two ways to read a completion record differ");
}
const Registered COMPLETION{"completion", feed_completion};

void feed_hash_cache(std::string_view bytes) {
  const auto parsed = [](const std::string& text) {
    return accepted([&] { return parse_hash_cache(text); });
  };
  const std::string text(bytes);
  const HashCacheEntries entries = parse_hash_cache(text);
  require(parsed(text + " ") == entries, "the two ways to read a hash cache differ");
  require(parsed(hash_cache_text(entries)) == entries,
          "a hash cache does not survive being written and read");
}
const Registered HASH_CACHE{"hash_cache", feed_hash_cache};

void feed_seed_sidecar(std::string_view bytes) {
  const auto parts = parts_of(bytes, 2);
  const std::string ciphertext(60, 'c');
  const std::string wallet(32, 'w');
  shuffle_seed_state::validate_shuffle_seed_pair(parts[1], ciphertext, parts[0], wallet);
  require(false, "bytes that nobody sealed open");
}
const Registered SEED_SIDECAR{"seed_sidecar", feed_seed_sidecar};

}  // namespace tidalcrest::fuzz
