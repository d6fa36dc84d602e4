#include "siblings/distribution/artifact_rotation_algorithms.hpp"

#include <algorithm>
#include <limits>
#include <map>
#include <numeric>
#include <string_view>
#include <vector>

#include "host/text.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync::artifact_rotation {
namespace {

using Indices = std::vector<std::size_t>;  // places in the list of eligible artifacts

// What is chosen so far, and the room that is left.
class Basket {
 public:
  Basket(const Artifacts& eligible, std::int64_t budget_bytes)
      : _eligible(eligible), _room(std::max<std::int64_t>(budget_bytes, 0)), _chosen(eligible.size()) {}

  bool take_if_it_fits(std::size_t index) {
    const std::int64_t size = _eligible[index]->size_bytes;
    if (size > _room) return false;
    _room -= size;
    _chosen[index] = true;
    return true;
  }

  Artifacts in_row_order() const {
    Artifacts artifacts;
    for (std::size_t i = 0; i < _eligible.size(); ++i) {
      if (_chosen[i]) artifacts.push_back(_eligible[i]);
    }
    return artifacts;
  }

 private:
  const Artifacts& _eligible;
  std::int64_t _room;
  std::vector<bool> _chosen;
};

Indices sorted_by_path(const Artifacts& artifacts) {
  Indices indices(artifacts.size());
  std::iota(indices.begin(), indices.end(), std::size_t{0});
  std::stable_sort(indices.begin(), indices.end(), [&](std::size_t a, std::size_t b) {
    return artifacts[a]->relative_path < artifacts[b]->relative_path;
  });
  return indices;
}

void choose_uniform(const Artifacts& eligible, CounterGenerator& generator, Basket& basket) {
  Indices order = sorted_by_path(eligible);
  generator.shuffle(order);
  for (const std::size_t index : order) basket.take_if_it_fits(index);
}

struct FamilyTurn {
  Indices order;
  std::size_t next = 0;

  // What did not fit once never will: the room only shrinks.
  bool take_next(Basket& basket) {
    while (next < order.size()) {
      if (basket.take_if_it_fits(order[next++])) return true;
    }
    return false;
  }
};

void choose_family_balanced(const Artifacts& eligible, CounterGenerator& generator, Basket& basket) {
  std::map<std::string_view, FamilyTurn> by_family;
  for (const std::size_t index : sorted_by_path(eligible))
    by_family[eligible[index]->family].order.push_back(index);
  std::vector<FamilyTurn> turns;
  for (auto& [family, turn] : by_family) {
    generator.shuffle(turn.order);
    turns.push_back(std::move(turn));
  }
  generator.shuffle(turns);
  while (!turns.empty()) {
    std::size_t left = 0;
    for (FamilyTurn& turn : turns) {
      if (turn.take_next(basket)) std::swap(turns[left++], turn);
    }
    turns.resize(left);
  }
}

bool restricts(const std::optional<std::string>& value) { return value && !value->empty(); }

bool is_in_scope(const ArtifactDescriptor& artifact, const SelectionScope& scope) {
  // A file that names no market belongs to the one there is.
  if (restricts(scope.market) && !artifact.market.empty() && artifact.market != *scope.market) return false;
  const auto serves = [&](const std::string& universe) { return serves_named_universe(artifact, universe); };
  const auto& universes = scope.named_universes;
  if (!universes.empty() && std::none_of(universes.begin(), universes.end(), serves)) return false;
  if (restricts(scope.family) && artifact.family != *scope.family) return false;
  return !restricts(scope.subfamily) || artifact.subfamily == *scope.subfamily;
}

}  // namespace

bool is_rotation_algorithm(const std::string& name) noexcept {
  return name == "uniform" || name == "family-balanced";
}

std::int64_t total_bytes(const Artifacts& artifacts) noexcept {
  constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max();
  std::int64_t total = 0;
  for (const auto& artifact : artifacts) {
    total = artifact->size_bytes > most - total ? most : total + artifact->size_bytes;
  }
  return total;
}

Artifacts artifacts_in_scope(const Artifacts& artifacts, const std::string& artifact_kind,
                             const SelectionScope& scope) {
  Artifacts eligible;
  for (const auto& artifact : artifacts) {
    if (artifact->mandatory || artifact->artifact_kind != artifact_kind) continue;
    if (is_in_scope(*artifact, scope)) eligible.push_back(artifact);
  }
  return eligible;
}

Artifacts choose_within_budget(const std::string& algorithm, const Artifacts& eligible,
                               std::int64_t budget_bytes, CounterGenerator& generator) {
  if (!is_rotation_algorithm(algorithm))
    throw ValueError("unknown rotation algorithm " + text::repr(algorithm));
  if (total_bytes(eligible) <= budget_bytes) return eligible;
  Basket basket(eligible, budget_bytes);
  if (algorithm == "uniform") {
    choose_uniform(eligible, generator, basket);
  } else {
    choose_family_balanced(eligible, generator, basket);
  }
  return basket.in_row_order();
}

}  // namespace tidalcrest::sync::artifact_rotation
