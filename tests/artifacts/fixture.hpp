#pragma once

#include "support/network.hpp"
#include "support/test_data.hpp"

namespace tidalcrest::sync::testing {

/// A vocabulary that belongs to era 7 and this universe.
inline Document vocabulary_document(const std::string& universe) {
  return {{"era_number", 7},
          {"named_universe", universe},
          {"features", Document::array()},
          {"metadata", {{"named_universe", universe}, {"n_instruments", 3}}}};
}

inline std::string vocabulary_path(const std::string& universe) {
  return "named_universes/" + universe + "/vocabulary.json";
}

}  // namespace tidalcrest::sync::testing
