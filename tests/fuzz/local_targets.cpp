#include "fuzz/targets.hpp"
#include "host/digest.hpp"
#include "host/json.hpp"
#include "siblings/distribution/artifact_rotation_state.hpp"
#include "siblings/distribution/completion_record.hpp"
#include "siblings/distribution/local_cohort.hpp"
#include "siblings/distribution/rotation_settings.hpp"
#include "siblings/distribution/shuffle_seed_state.hpp"
#include "support/temp_dir.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::fuzz {

using namespace sync;

void feed_rotation(std::string_view bytes) {
  static const sync::testing::TempDir data;
  const auto parts = parts_of(bytes, 2);
  data.write(rotation_settings::ROTATION_SETTINGS_FILENAME, parts[0]);
  try {
    const auto settings = rotation_settings::load_rotation_settings(data.path(), Document::object());
    require(settings.model_dump().is_object(), "settings do not dump");
  } catch (const Failure&) {
    // The state is fed all the same.
  }
  const RotationState state =
      artifact_rotation::rotation_state_from_payload(parse_json(parts[1]), "fuzzed state", 1);
  const Document written = artifact_rotation::rotation_state_payload(state, 1);
  require(artifact_rotation::rotation_state_from_payload(written, "written state", 1) == state,
          "a state does not survive being written and read");
}

void feed_completion(std::string_view bytes) {
  static const sync::testing::TempDir data;
  const std::string digest(64, '0');
  const auto parts = parts_of(bytes, 2);
  data.write("manifest.json", parts[1]);
  try {
    require(local_cohort::load_active_cohort(data.path(), /*required=*/false) == nullptr,
            "a selector without a generation selects one");
  } catch (const Failure&) {
    // The record is fed all the same.
  }
  const auto members = local_cohort::parse_completion_record(parts[0], digest, 10);
  for (const auto& path : members.active_relative_paths)
    require(members.find(path) != nullptr, "a member has no identity");
}

void feed_seed_sidecar(std::string_view bytes) {
  const auto parts = parts_of(bytes, 2);
  const std::string ciphertext(60, 'c');
  const std::string wallet(32, 'w');
  shuffle_seed_state::validate_shuffle_seed_pair(parts[1], ciphertext, parts[0], wallet);
  require(false, "bytes that nobody sealed open");
}

}  // namespace tidalcrest::fuzz
