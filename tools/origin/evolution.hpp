#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "origin/origin_tree.hpp"
#include "origin/recipe.hpp"

namespace tidalcrest::origin {

/// So many files, or such a part of all.
struct Amount {
  double value = 0;
  bool is_ratio = false;
  std::size_t of(std::size_t total) const;
};

/// Reads "12" or "2.5%". Throws `ValueError`.
Amount parse_amount(const std::string& text);

/// How a release differs from the one before. Only files that are not made on their own take part.
struct Evolution {
  Amount change;  ///< files of any kind that get new bytes
  Amount add;     ///< new features; a ratio is of the features that are there
  Amount remove;  ///< features that go away
  bool next_era = false;
};

struct EvolvedRelease {
  Release release;
  std::vector<std::string> changed, added, removed;
};

/// Writes the next release of a tree; which files take part follows from the recipe's number and the version.
/// Vocabularies, functions file and signals index follow along. Throws `ValueError` when more files are to go
/// than are there.
EvolvedRelease evolve(const OriginTree& tree, const Recipe& recipe, const Evolution& evolution);

}  // namespace tidalcrest::origin
