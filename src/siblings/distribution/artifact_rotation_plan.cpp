#include "siblings/distribution/artifact_rotation_plan.hpp"

#include <algorithm>
#include <limits>

#include "host/path_set.hpp"
#include "siblings/distribution/artifact_rotation_generator.hpp"
#include "siblings/distribution/artifact_rotation_state.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync::artifact_rotation {
namespace {

Artifacts mandatory_of(const Artifacts& artifacts) {
  Artifacts mandatory;
  for (const auto& artifact : artifacts) {
    if (artifact->mandatory) mandatory.push_back(artifact);
  }
  return mandatory;
}

std::int64_t budget_bytes(const ArtifactRotationSettings& settings, const Selection& selection) {
  if (const auto* bytes = std::get_if<std::int64_t>(&settings.feature_budget_bytes)) {
    return std::max<std::int64_t>(*bytes, 0);
  }
  const bool full = std::holds_alternative<FullDownload>(settings.feature_budget_bytes);
  if (full || !settings.free_disk_bytes) return total_bytes(selection.eligible_artifacts);
  // Together with the mandatory files at most half of the free space, as the check before a sync demands.
  return std::max<std::int64_t>(*settings.free_disk_bytes / 2 - selection.mandatory_bytes, 0);
}

// All of a selection but the choice itself.
Selection prepared_selection(const Artifacts& artifacts, const ArtifactRotationSettings& settings) {
  Selection selection;
  selection.mandatory_artifacts = mandatory_of(artifacts);
  selection.eligible_artifacts = artifacts_in_scope(artifacts, settings.artifact_kind, settings.scope);
  selection.seed = settings.seed;
  selection.mandatory_bytes = total_bytes(selection.mandatory_artifacts);
  selection.feature_budget_bytes = budget_bytes(settings, selection);
  return selection;
}

bool anything_rotates(const Artifacts& artifacts, const ArtifactRotationSettings& settings) {
  return std::any_of(artifacts.begin(), artifacts.end(), [&](const Artifact& artifact) {
    return !artifact->mandatory && artifact->artifact_kind == settings.artifact_kind;
  });
}

std::int64_t next_generation(const std::optional<RotationState>& previous_state) {
  constexpr std::int64_t last = std::numeric_limits<std::int64_t>::max();
  return previous_state ? std::min(previous_state->generation, last - 1) + 1 : 1;
}

RotationPlan finished_plan(const Artifacts& artifacts, const ArtifactRotationSettings& settings,
                           Selection selection, RotationState candidate_state) {
  selection.rebuild_active_relative_paths();
  // A state with paths counts as stale where nothing rotates, so none are recorded there.
  candidate_state.active_relative_paths =
      anything_rotates(artifacts, settings) ? selection.active_relative_paths : PathList();
  return {std::move(selection), std::move(candidate_state)};
}

std::vector<std::string> paths_of(const Artifacts& artifacts) {
  std::vector<std::string> paths;
  paths.reserve(artifacts.size());
  for (const auto& artifact : artifacts) paths.emplace_back(artifact->relative_path);
  return paths;
}

}  // namespace

Artifacts Selection::selected_artifacts() const {
  Artifacts selected = mandatory_artifacts;
  selected.insert(selected.end(), rotatable_artifacts.begin(), rotatable_artifacts.end());
  return selected;
}

PathList Selection::mandatory_relative_paths() const { return paths_of(mandatory_artifacts); }

PathList Selection::skipped_relative_paths() const {
  if (rotatable_artifacts == eligible_artifacts) return {};
  const PathSet active(active_relative_paths.begin(), active_relative_paths.end());
  std::vector<std::string> skipped;
  for (const auto& artifact : eligible_artifacts) {
    if (!active.contains(artifact->relative_path)) skipped.emplace_back(artifact->relative_path);
  }
  return skipped;
}

void Selection::rebuild_active_relative_paths() {
  PathSet paths;
  paths.reserve(mandatory_artifacts.size() + rotatable_artifacts.size());
  for (const Artifacts* artifacts : {&mandatory_artifacts, &rotatable_artifacts}) {
    for (const auto& artifact : *artifacts) paths.insert(artifact->relative_path);
  }
  const bool in_step =
      std::equal(paths.begin(), paths.end(), active_relative_paths.begin(), active_relative_paths.end());
  if (!in_step) active_relative_paths = PathList(paths.begin(), paths.end());
}

Document RotationPlan::rotation_record() const {
  return {{"reason", candidate_state.reason},
          {"algorithm", candidate_state.algorithm},
          {"generation", candidate_state.generation},
          {"seed", candidate_state.seed},
          {"feature_budget_bytes", selection.feature_budget_bytes},
          {"mandatory_bytes", selection.mandatory_bytes},
          {"rotatable_bytes", total_bytes(selection.rotatable_artifacts)},
          {"eligible_count", selection.eligible_artifacts.size()},
          {"active_relative_paths", selection.active_relative_paths}};
}

RotationPlan plan_rotation(const Artifacts& artifacts, const ArtifactRotationSettings& settings,
                           const std::optional<RotationState>& previous_state, const std::string& reason) {
  Selection selection = prepared_selection(artifacts, settings);
  if (settings.free_disk_bytes && selection.mandatory_bytes > *settings.free_disk_bytes) {
    throw MandatoryArtifactsTooLargeError(selection.mandatory_bytes, *settings.free_disk_bytes,
                                          selection.mandatory_relative_paths());
  }
  auto generator =
      CounterGenerator::continued(settings.seed, previous_state ? previous_state->rng_state : "");
  selection.rotatable_artifacts = choose_within_budget(settings.algorithm, selection.eligible_artifacts,
                                                       selection.feature_budget_bytes, generator);
  RotationState candidate;
  candidate.generation = next_generation(previous_state);
  candidate.seed = settings.seed;
  candidate.rng_state = generator.state_text();
  candidate.algorithm = settings.algorithm;
  candidate.reason = reason;
  return finished_plan(artifacts, settings, std::move(selection), std::move(candidate));
}

RotationPlan plan_from_active_rotation_state(const Artifacts& artifacts,
                                             const ArtifactRotationSettings& settings,
                                             const RotationState& active_state) {
  if (const auto fault = rotation_state_fault(active_state)) {
    throw ActiveRotationStateError("active rotation state cannot be used: " + *fault);
  }
  Selection selection = prepared_selection(artifacts, settings);
  const auto& paths = active_state.active_relative_paths;
  const PathSet present(paths.begin(), paths.end());
  for (const auto& artifact : artifacts) {
    if (!artifact->mandatory && present.contains(artifact->relative_path)) {
      selection.rotatable_artifacts.push_back(artifact);
    }
  }
  if (selection.rotatable_artifacts.empty() && !selection.eligible_artifacts.empty()) {
    RotationPlan fresh = plan_rotation(artifacts, settings, active_state, "nothing to keep");
    if (!fresh.selection.rotatable_artifacts.empty()) return fresh;
  }
  selection.seed = active_state.seed;
  selection.active_relative_paths = paths;  // mostly these still, and then shared
  return finished_plan(artifacts, settings, std::move(selection), active_state);
}

RotationState promote_rotation_candidate(const std::optional<RotationState>& active_state,
                                         const RotationState& candidate_state,
                                         const PathList& available_relative_paths) {
  RotationState promoted = candidate_state;
  if (promoted.active_relative_paths != available_relative_paths) {
    const PathSet available(available_relative_paths.begin(), available_relative_paths.end());
    promoted.active_relative_paths = promoted.active_relative_paths.without(
        [&](const std::string& path) { return !available.contains(path); });
  }
  if (active_state) promoted.generation = std::max(promoted.generation, active_state->generation);
  return promoted;
}

}  // namespace tidalcrest::sync::artifact_rotation
