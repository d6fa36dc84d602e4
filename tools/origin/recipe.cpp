#include "origin/recipe.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>

#include "host/json.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::origin {
namespace {

using sync::ValueError;

constexpr std::array FAMILIES = {"momentum", "volume", "spread", "carry", "depth"};
constexpr std::array SUBFAMILIES = {"fast", "slow", "ranked", "smoothed"};
constexpr std::array MEASURES = {"mean", "stdev", "skew", "slope", "range", "last", "gap"};

/// Applies `visit(key, member)` to every member, for reading and for writing.
template <class RecipeType, class Visitor>
void visit_members(RecipeType& recipe, const Visitor& visit) {
  visit("market_id", recipe.market_id);
  visit("era_number", recipe.era_number);
  visit("number", recipe.number);
  visit("universes", recipe.universes);
  visit("epochs", recipe.epochs);
  visit("features", recipe.features);
  visit("feature_bytes", recipe.feature_bytes);
  visit("found_signals", recipe.found_signals);
  visit("found_strategies", recipe.found_strategies);
  visit("found_bytes", recipe.found_bytes);
  visit("vault_modules", recipe.vault_modules);
  visit("platforms", recipe.platforms);
  visit("module_bytes", recipe.module_bytes);
  visit("extras", recipe.extras);
  visit("extra_bytes", recipe.extra_bytes);
}

bool is_count(const Document& value) { return value.is_number_unsigned(); }

template <class Number>
requires std::is_integral_v<Number>
void read_member(const Document& value, Number& member) {
  if (!is_count(value)) throw ValueError("a number of at least 0");
  member = value.get<Number>();
}

void read_member(const Document& value, SizeRange& member) {
  if (is_count(value)) {
    member = {value.get<std::uint64_t>(), value.get<std::uint64_t>()};
    return;
  }
  const bool pair = value.is_array() && value.size() == 2 && is_count(value[0]) && is_count(value[1]);
  if (!pair || value[0].get<std::uint64_t>() > value[1].get<std::uint64_t>()) {
    throw ValueError("a size or a pair of sizes");
  }
  member = {value[0].get<std::uint64_t>(), value[1].get<std::uint64_t>()};
}

void read_member(const Document& value, std::vector<std::string>& member) {
  member.clear();
  if (!value.is_array()) throw ValueError("a list of texts");
  for (const auto& item : value) {
    if (!item.is_string()) throw ValueError("a list of texts");
    member.push_back(item.get<std::string>());
  }
}

template <class Member>
Document written_member(const Member& member) {
  if constexpr (std::is_same_v<Member, SizeRange>) {
    return Document::array({member.least, member.most});
  } else {
    return member;
  }
}

}  // namespace

Recipe parse_recipe(const std::string& text) {
  const auto document = sync::parse_strict_json(text);
  if (!document.is_object()) throw ValueError("recipe: expected a JSON object");
  Recipe recipe;
  std::size_t known = 0;
  auto keys = document;
  visit_members(recipe, [&](const char* key, auto& member) {
    const auto* value = sync::find_member(document, key);
    if (value == nullptr) return;
    ++known;
    keys.erase(key);
    try {
      read_member(*value, member);
    } catch (const ValueError& failure) {
      throw ValueError(fmt::format("recipe: {}: expected {}", key, failure.what()));
    }
  });
  if (!keys.empty())
    throw ValueError("recipe: unknown key " + keys.get_ref<Document::object_t&>().begin()->first);
  return recipe;
}

Document recipe_document(const Recipe& recipe) {
  auto document = Document::object();
  visit_members(recipe, [&](const char* key, const auto& member) { document[key] = written_member(member); });
  return document;
}

GeneratedBytes recipe_content(const Recipe& recipe, const std::string& path, SizeRange sizes,
                              const std::string& generation) {
  const auto number = derived_number(recipe.number, path + "|" + generation);
  const auto span = sizes.most - sizes.least + 1;
  return {sizes.least + (span == 0 ? number : number % span), number};
}

std::pair<std::string, GeneratedBytes> recipe_feature(const Recipe& recipe, const std::string& universe,
                                                      const std::string& epoch, const std::string& serial,
                                                      std::size_t index) {
  const auto path = fmt::format(
      "features/{}/{}/{}__{}__{}__{}{:05}.arrow", universe, epoch, FAMILIES[index % FAMILIES.size()],
      SUBFAMILIES[index / 5 % SUBFAMILIES.size()], MEASURES[index / 20 % MEASURES.size()], serial, index);
  return {path, recipe_content(recipe, path, recipe.feature_bytes, "")};
}

ManifestBuilder build_from_recipe(const Recipe& recipe) {
  ManifestBuilder content;
  content.era(recipe.era_number);
  const auto add = [&](const std::string& path, SizeRange sizes, Document extra = Document::object()) {
    content.generated(path, recipe_content(recipe, path, sizes, ""), kind_for_path(path), std::move(extra));
  };
  for (const auto& universe : recipe.universes) {
    content.universe(universe);
    for (const auto& epoch : recipe.epochs) {
      for (std::size_t i = 0; i < recipe.features; ++i) {
        const auto [path, bytes] = recipe_feature(recipe, universe, epoch, "w", i);
        content.generated(path, bytes);
      }
    }
    for (std::size_t i = 0; i < recipe.found_signals; ++i) {
      add(fmt::format("found_signals/{}/{}_s{:04}/is/pnl.arrow", universe, universe, i), recipe.found_bytes);
    }
    for (std::size_t i = 0; i < recipe.found_strategies; ++i) {
      add(fmt::format("found_strategies/{}/{}_t{:04}/epoch/pnl.arrow", universe, universe, i),
          recipe.found_bytes);
    }
  }
  for (const auto& name : recipe.vault_modules) {
    for (const auto& platform : recipe.platforms) {
      add(fmt::format("vault_modules/{}-{}.so", name, platform), recipe.module_bytes,
          {{"platform", platform}});
    }
  }
  for (std::size_t i = 0; i < recipe.extras; ++i) {
    add(fmt::format("reference/table_{:03}.bin", i), recipe.extra_bytes, {{"mandatory", true}});
  }
  return content;
}

ManifestBuilder build_from_folder(const std::filesystem::path& folder) {
  ManifestBuilder content;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
    if (!entry.is_regular_file()) continue;
    const auto path = entry.path().lexically_relative(folder).generic_string();
    content.put(path, {kind_for_path(path), entry.path(), Document::object()});
    if (path.starts_with("features/") && std::count(path.begin(), path.end(), '/') >= 3) {
      content.universe(path.substr(9, path.find('/', 9) - 9));
    }
  }
  return content;
}

}  // namespace tidalcrest::origin
