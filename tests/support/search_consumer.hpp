#pragma once

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/json.hpp"
#include "tidalcrest/sync/search_consumer.hpp"

namespace tidalcrest::sync::testing {

/// A running search that keeps what it hears; `on_refresh` is called first.
class SearchConsumer : public RotationSearchConsumer {
 public:
  explicit SearchConsumer(std::optional<std::string> universe = {}) : universe(std::move(universe)) {}
  bool takes_refreshes() const override { return refreshes; }
  std::optional<std::string> named_universe() const override { return universe; }
  void refresh_rotation_scope(const RotationState& state, const Document& scoped_vocabulary) override {
    if (on_refresh) on_refresh();
    generation = state.generation;
    heard.push_back(dump_json(scoped_vocabulary.at("features")));
  }

  std::optional<std::string> universe;
  bool refreshes = true;
  std::function<void()> on_refresh;
  std::int64_t generation = 0;
  std::vector<std::string> heard;
};

}  // namespace tidalcrest::sync::testing
