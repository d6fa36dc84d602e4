#include "rotation/status.hpp"

#include <fmt/format.h>

#include <ctime>
#include <limits>

#include "host/integer.hpp"
#include "host/json.hpp"
#include "host/text.hpp"
#include "host/unusable.hpp"
#include "manifest/persistence.hpp"
#include "rotation/catalog.hpp"
#include "siblings/distribution/contained_files.hpp"
#include "siblings/distribution/local_cohort.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

constexpr const char* STATUS_MANIFEST_LABEL = "manifest.json for feature rotation status";
constexpr std::int64_t SECONDS_PER_WEEK = 604800;
constexpr std::int64_t SECONDS_PER_HOUR = 3600;
constexpr double END_OF_CALENDAR = 253402300800.0;  // the year 10000, which the format cannot show

[[noreturn]] void throw_invalid_manifest(const std::exception& failure) {
  throw FeatureRotationStateError(fmt::format("invalid {}: {}", STATUS_MANIFEST_LABEL, failure.what()));
}

std::optional<std::string> read_status_manifest(const std::string& data_dir) {
  try {
    return client_manifest::read_contained_regular_file_if_present(data_dir, "manifest.json",
                                                                   STATUS_MANIFEST_LABEL);
  } catch (const Failure& failure) {
    if (!is_unusable(failure)) throw;
    throw_invalid_manifest(failure);
  }
}

SharedManifest parse_status_manifest(std::string bytes) {
  try {
    return _parse_full_distribution_manifest(std::make_shared<const std::string>(std::move(bytes)),
                                             STATUS_MANIFEST_LABEL);
  } catch (const std::exception& failure) {
    throw_invalid_manifest(failure);
  }
}

std::optional<double> state_file_seconds(const std::string& data_dir) {
  try {
    const auto stat = client_manifest::stat_contained_regular_file(data_dir, FEATURE_ROTATION_STATE_FILENAME,
                                                                   "feature rotation state");
    return static_cast<double>(stat.mtime_ns) / 1e9;
  } catch (const FileNotFoundError&) {
    return std::nullopt;
  }
}

std::string utc_text(double seconds) {
  const auto time = static_cast<std::time_t>(seconds);
  std::tm parts{};
  gmtime_r(&time, &parts);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", parts.tm_year + 1900, parts.tm_mon + 1,
                     parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
}

// Where the active files lie: in the selected generation, else in the data directory itself.
std::string active_root_of(const std::string& data_dir) {
  try {
    const auto selection = local_cohort::load_active_cohort(data_dir, /*required=*/false);
    return selection ? selection->root_dir : data_dir;
  } catch (const LocalCohortError&) {
    return data_dir;
  }
}

artifact_rotation::StatusAccounting account(const std::string& data_dir, const Manifest* manifest,
                                            const std::vector<std::string>& active_paths,
                                            const Document& settings_payload) {
  std::optional<Artifacts> artifacts;
  std::vector<std::string> existing_paths;
  if (manifest != nullptr) {
    artifacts = _rotation_manifest_artifacts(*manifest);
    std::vector<std::string> artifact_paths;
    artifact_paths.reserve(artifacts->size());
    for (const auto& artifact : *artifacts) artifact_paths.emplace_back(artifact->relative_path);
    existing_paths = _existing_rotation_paths(active_root_of(data_dir), artifact_paths);
  }
  return artifact_rotation::rotation_status_accounting(active_paths, artifacts, settings_payload,
                                                       existing_paths);
}

template <class Value>
Document document_of(const std::optional<Value>& value) {
  return value ? Document(*value) : Document(nullptr);
}

const char* state_word(const std::optional<RotationState>& state,
                       const artifact_rotation::StatusAccounting& accounting) {
  if (!state) return "uninitialized";
  return accounting.missing_active_relative_paths.empty() ? "active" : "incomplete";
}

}  // namespace

std::unique_ptr<Manifest> _load_feature_rotation_status_manifest(const std::string& data_dir) {
  auto bytes = read_status_manifest(data_dir);
  return bytes ? std::make_unique<Manifest>(parse_status_manifest(*std::move(bytes))) : nullptr;
}

std::optional<std::int64_t> _rotation_frequency_seconds(const Document& settings_payload) {
  const Document* frequency = find_member(settings_payload, "rotation_frequency");
  if (frequency == nullptr || !text::truthy(*frequency)) return std::nullopt;
  const std::string raw = text::strip(text::str(*frequency));
  if (raw == "weekly") return SECONDS_PER_WEEK;
  if (!raw.starts_with("PT") || !raw.ends_with("H")) return std::nullopt;
  const auto hours = try_int(raw.substr(2, raw.size() - 3));
  if (!hours || *hours <= 0 || *hours > std::numeric_limits<std::int64_t>::max() / SECONDS_PER_HOUR) {
    return std::nullopt;
  }
  return *hours * SECONDS_PER_HOUR;
}

NextRotation _rotation_next_at(const std::string& data_dir, const Document& settings_payload,
                               const Seams& seams) {
  const auto frequency = _rotation_frequency_seconds(settings_payload);
  if (!frequency) return {};
  const auto written_at = state_file_seconds(data_dir);
  if (!written_at) return {};
  const double next = *written_at + static_cast<double>(*frequency);
  if (next >= END_OF_CALENDAR) return {};
  return {utc_text(next), seams.wall_seconds() >= next};
}

bool _rotation_is_due(const std::string& data_dir, const Document& settings_payload,
                      const std::optional<RotationState>& active_state, const Seams& seams) {
  if (!active_state) return true;
  return _rotation_next_at(data_dir, settings_payload, seams).due.value_or(false);
}

Document feature_rotation_status_payload(const std::string& data_dir, const Document& settings_payload) {
  const auto state = load_feature_rotation_state(data_dir);
  const auto manifest = _load_feature_rotation_status_manifest(data_dir);
  const PathList active_paths = state ? state->active_relative_paths : PathList();
  const auto accounting = account(data_dir, manifest.get(), active_paths, settings_payload);
  const NextRotation next = _rotation_next_at(data_dir, settings_payload);

  const Document counts = {{"active_path_count", active_paths.size()},
                           {"eligible_feature_count", accounting.eligible_relative_paths.size()},
                           {"selected_feature_count", accounting.selected_relative_paths.size()},
                           {"skipped_feature_count", accounting.skipped_relative_paths.size()},
                           {"departed_feature_count", accounting.departed_relative_paths.size()},
                           {"missing_active_path_count", accounting.missing_active_relative_paths.size()}};
  Document payload = {
      {"state", state_word(state, accounting)},
      {"manifest_available", manifest != nullptr},
      {"era_number", manifest ? document_of(_manifest_era_number_or_none(*manifest)) : Document(nullptr)},
      {"manifest_version", manifest ? document_of(try_int(manifest->version())) : Document(nullptr)},
      {"generation", state ? Document(state->generation) : Document(nullptr)},
      {"seed", state ? Document(state->seed) : Document(nullptr)},
      {"rng_state", state ? Document(state->rng_state) : Document(nullptr)},
      {"active_relative_paths", active_paths},
      {"selected_relative_paths", accounting.selected_relative_paths},
      {"skipped_relative_paths", accounting.skipped_relative_paths},
      {"departed_relative_paths", accounting.departed_relative_paths},
      {"missing_active_relative_paths", accounting.missing_active_relative_paths}};
  for (const auto& [key, count] : counts.get_ref<const Document::object_t&>()) payload[key] = count;
  payload["status_accounting"] = counts;
  payload["next_rotation_at"] = document_of(next.at);
  payload["next_rotation_due"] = document_of(next.due);
  return payload;
}

}  // namespace tidalcrest::sync
