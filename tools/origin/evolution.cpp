#include "origin/evolution.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <set>

#include "host/json.hpp"
#include "host/text.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::origin {
namespace {

using sync::ValueError;

/// Files that a release makes on its own.
bool is_automatic(const std::string& kind) {
  return kind == "vocabulary" || kind == "functions" || kind == "signals_index";
}

std::string kind_of(const Document& entry) { return entry.value("kind", ""); }

/// `count` of the paths, chosen by a number.
std::vector<std::string> choose(const std::vector<std::string>& paths, std::size_t count,
                                std::uint64_t number) {
  if (count > paths.size()) {
    throw ValueError(fmt::format("{} files are asked for where there are {}", count, paths.size()));
  }
  std::vector<std::pair<std::uint64_t, const std::string*>> drawn;
  drawn.reserve(paths.size());
  for (const auto& path : paths) drawn.emplace_back(derived_number(number, path), &path);
  std::sort(drawn.begin(), drawn.end(), [](const auto& a, const auto& b) {
    return std::tie(a.first, *a.second) < std::tie(b.first, *b.second);
  });
  std::vector<std::string> chosen;
  for (std::size_t i = 0; i < count; ++i) chosen.push_back(*drawn[i].second);
  std::sort(chosen.begin(), chosen.end());
  return chosen;
}

/// The release before, file by file as it stands.
ManifestBuilder kept_content(const Release& before) {
  ManifestBuilder content;
  for (const auto& name : before.manifest.value("named_universes", std::vector<std::string>())) {
    content.universe(name);
  }
  for (const auto& [path, entry] : before.manifest.at("files").get_ref<const Document::object_t&>()) {
    if (!is_automatic(kind_of(entry))) content.put(path, {kind_of(entry), KeptFile{}});
  }
  return content;
}

SizeRange sizes_for(const Recipe& recipe, const std::string& kind) {
  if (kind == "feature") return recipe.feature_bytes;
  if (kind == "vault_module") return recipe.module_bytes;
  return kind == "reference" ? recipe.extra_bytes : recipe.found_bytes;
}

/// The members of an entry that do not follow from its bytes.
Document described(const Document& entry) {
  auto extra = entry;
  for (const char* key : {"kind", "sha256", "size_bytes"}) extra.erase(key);
  return extra;
}

}  // namespace

std::size_t Amount::of(std::size_t total) const {
  return static_cast<std::size_t>(is_ratio ? std::llround(value / 100 * static_cast<double>(total))
                                           : std::llround(value));
}

Amount parse_amount(const std::string& text) {
  Amount amount;
  const auto* end = text.data() + text.size();
  const auto got = std::from_chars(text.data(), end, amount.value);
  amount.is_ratio = got.ptr + 1 == end && *got.ptr == '%';
  if (got.ec != std::errc() || amount.value < 0 || !(amount.is_ratio || got.ptr == end)) {
    throw ValueError("expected a number of files or a percentage, got '" + text + "'");
  }
  return amount;
}

EvolvedRelease evolve(const OriginTree& tree, const Recipe& recipe, const Evolution& evolution) {
  const auto state = tree.state();
  const auto before = tree.release(state.held.empty() ? state.current : state.held);
  const auto era = before.manifest.at("era_number").get<std::int64_t>() + (evolution.next_era ? 1 : 0);
  const auto version = evolution.next_era ? 1 : before.manifest.at("version").get<std::int64_t>() + 1;
  const auto generation = fmt::format("e{}v{}", era, version);
  auto content = kept_content(before);
  content.era(era).version(version);

  std::vector<std::string> features;
  std::set<std::pair<std::string, std::string>> places;  // universe and epoch
  for (const auto& [path, source] : content.files()) {
    const auto segments = sync::text::split(path, "/");
    if (source.kind != "feature" || segments.size() != 4) continue;
    features.push_back(path);
    places.emplace(segments[1], segments[2]);
  }

  EvolvedRelease evolved;
  evolved.removed = choose(features, evolution.remove.of(features.size()),
                           derived_number(recipe.number, "remove|" + generation));
  const auto total_before = content.files().size();
  for (const auto& path : evolved.removed) content.remove(path);

  std::vector<std::string> remaining;
  for (const auto& [path, source] : content.files()) remaining.push_back(path);
  evolved.changed = choose(remaining, std::min(evolution.change.of(total_before), remaining.size()),
                           derived_number(recipe.number, "change|" + generation));
  const auto& entries = before.manifest.at("files");
  for (const auto& path : evolved.changed) {
    const auto kind = kind_of(entries.at(path));
    content.generated(path, recipe_content(recipe, path, sizes_for(recipe, kind), generation), kind,
                      described(entries.at(path)));
  }

  const auto count = evolution.add.of(features.size());
  if (count > 0 && places.empty()) places.emplace("u1", "signal_is");
  auto place = places.begin();
  for (std::size_t i = 0; i < count; ++i) {
    const auto [path, bytes] = recipe_feature(recipe, place->first, place->second, generation + "w", i);
    content.generated(path, bytes);
    evolved.added.push_back(path);
    if (++place == places.end()) place = places.begin();
  }
  evolved.release = tree.add_release(content);
  return evolved;
}

}  // namespace tidalcrest::origin
