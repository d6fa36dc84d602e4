#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "siblings/distribution/artifact_rotation_descriptors.hpp"
#include "siblings/distribution/artifact_rotation_generator.hpp"

namespace tidalcrest::sync::artifact_rotation {

/// What may be chosen at all. An absent or empty member restricts nothing.
struct SelectionScope {
  std::optional<std::string> market = {};
  std::vector<std::string> named_universes = {};
  std::optional<std::string> family = {};
  std::optional<std::string> subfamily = {};
};

/// "uniform" and "family-balanced".
bool is_rotation_algorithm(const std::string& name) noexcept;

/// Sum of the sizes; stays at the largest number instead of wrapping.
std::int64_t total_bytes(const Artifacts& artifacts) noexcept;

/// The artifacts of the kind that are not mandatory and lie in the scope, in row order.
Artifacts artifacts_in_scope(const Artifacts& artifacts, const std::string& artifact_kind,
                             const SelectionScope& scope);

/// The eligible artifacts that fit into the budget, in row order. Where everything fits nothing is drawn.
/// Otherwise:
///
/// - "uniform": the eligible paths are sorted and shuffled; each in turn is taken if it still fits.
/// - "family-balanced": the paths are sorted, and each family, in order of name, is shuffled; then the
///   order of the families is shuffled, and they take turns, each taking its next that still fits.
///
/// Throws `ValueError` for an unknown algorithm.
Artifacts choose_within_budget(const std::string& algorithm, const Artifacts& eligible,
                               std::int64_t budget_bytes, CounterGenerator& generator);

}  // namespace tidalcrest::sync::artifact_rotation
