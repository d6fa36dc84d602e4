#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "origin/manifest_builder.hpp"

namespace tidalcrest::origin {

/// A range of file sizes; both ends can occur.
struct SizeRange {
  std::uint64_t least = 0;
  std::uint64_t most = 0;
};

/// What a generated distribution is made of. The same recipe gives the same bytes everywhere.
struct Recipe {
  std::int64_t market_id = 1;
  std::int64_t era_number = 1;
  std::uint64_t number = 1;
  std::vector<std::string> universes = {"u1"};
  std::vector<std::string> epochs = {"signal_is", "strategy_is"};
  std::size_t features = 100;  ///< in each epoch of each universe
  SizeRange feature_bytes = {4096, 65536};
  std::size_t found_signals = 10;    ///< in each universe
  std::size_t found_strategies = 3;  ///< in each universe
  SizeRange found_bytes = {1024, 8192};
  std::vector<std::string> vault_modules = {};
  std::vector<std::string> platforms = {"linux_x86_64"};  ///< each module is there for each of them
  SizeRange module_bytes = {16384, 65536};
  std::size_t extras = 2;  ///< mandatory files of kind "reference"
  SizeRange extra_bytes = {1024, 16384};
};

/// Reads a JSON object whose keys are the members above (a size range is a number or a pair), each optional.
/// Throws `ValueError` naming an unknown key or a value of a wrong type.
Recipe parse_recipe(const std::string& text);
/// The same as a JSON object that `parse_recipe` reads.
Document recipe_document(const Recipe& recipe);

/// The content of the first release.
ManifestBuilder build_from_recipe(const Recipe& recipe);
/// Every regular file below a folder, with the kind that its place tells.
ManifestBuilder build_from_folder(const std::filesystem::path& folder);

/// Path and content of one generated feature. Names have four `__` segments; the first two are family and
/// subfamily.
std::pair<std::string, GeneratedBytes> recipe_feature(const Recipe& recipe, const std::string& universe,
                                                      const std::string& epoch, const std::string& serial,
                                                      std::size_t index);
/// The content that `path` has in a given generation of it.
GeneratedBytes recipe_content(const Recipe& recipe, const std::string& path, SizeRange sizes,
                              const std::string& generation);

}  // namespace tidalcrest::origin
