#include "origin/manifest_builder.hpp"

#include <algorithm>
#include <set>

#include "host/json.hpp"
#include "host/text.hpp"

namespace tidalcrest::origin {
namespace {

constexpr const char* FUNCTIONS_PATH = "functions.json";
constexpr const char* SIGNALS_INDEX_PATH = "signals_index.json";
constexpr const char* FOUND_SIGNAL_KIND = "found_signal_is_pnl";
constexpr const char* FOUND_STRATEGY_KIND = "found_strategy_is_epoch_pnl";

std::string vocabulary_path(const std::string& universe) {
  return "named_universes/" + universe + "/vocabulary.json";
}

FileSource text_source(std::string kind, std::string bytes, Document extra = Document::object()) {
  return {std::move(kind), std::make_shared<const std::string>(std::move(bytes)), std::move(extra)};
}

/// What the place of a feature tells about it; members that are given win.
void add_feature_scope(const std::string& path, FileSource& source) {
  if (std::holds_alternative<KeptFile>(source.content)) return;
  const auto segments = sync::text::split(path, "/");
  if (source.kind != "feature" || segments.size() < 4 || segments.front() != "features") return;
  const std::pair<const char*, const char*> scope[] = {
      {"artifact_kind", "feature"}, {"market", "crypto"}, {"named_universe", segments[1].c_str()}};
  for (const auto& [key, value] : scope) {
    if (!source.extra.contains(key)) source.extra[key] = value;
  }
}

void merge(Document& into, const Document& more) {
  for (const auto& [key, value] : more.get_ref<const Document::object_t&>()) into[key] = value;
}

Document function_entry(const char* name, int arguments) {
  return {{"name", name}, {"arguments", arguments}};
}

}  // namespace

std::string kind_for_path(const std::string& path) {
  const auto segments = sync::text::split(path, "/");
  const auto& root = segments.front();
  const auto& last = segments.back();
  if (path == FUNCTIONS_PATH) return "functions";
  if (path == SIGNALS_INDEX_PATH) return "signals_index";
  if (root == "features" && path.ends_with(".arrow")) return "feature";
  if (root == "found_signals") return FOUND_SIGNAL_KIND;
  if (root == "found_strategies") return FOUND_STRATEGY_KIND;
  if (root == "vault_modules" && (last.ends_with(".so") || last.ends_with(".pyd"))) return "vault_module";
  if (root == "named_universes" && last == "vocabulary.json") return "vocabulary";
  return "reference";
}

ManifestBuilder& ManifestBuilder::era(std::int64_t era_number) {
  _era = era_number;
  return *this;
}

ManifestBuilder& ManifestBuilder::version(std::int64_t version) {
  _version = version;
  return *this;
}

ManifestBuilder& ManifestBuilder::file(const std::string& path, std::string bytes, const std::string& kind,
                                       Document extra) {
  return put(path, text_source(kind, std::move(bytes), std::move(extra)));
}

ManifestBuilder& ManifestBuilder::generated(const std::string& path, GeneratedBytes content,
                                            const std::string& kind, Document extra) {
  return put(path, {kind, content, std::move(extra)});
}

ManifestBuilder& ManifestBuilder::feature(const std::string& universe, const std::string& epoch,
                                          const std::string& name, std::string bytes) {
  return file("features/" + universe + "/" + epoch + "/" + name + ".arrow", std::move(bytes));
}

ManifestBuilder& ManifestBuilder::found_signal(const std::string& universe, const std::string& id,
                                               std::string bytes) {
  return file("found_signals/" + universe + "/" + id + "/is/pnl.arrow", std::move(bytes), FOUND_SIGNAL_KIND);
}

ManifestBuilder& ManifestBuilder::found_strategy(const std::string& universe, const std::string& id,
                                                 std::string bytes) {
  return file("found_strategies/" + universe + "/" + id + "/epoch/pnl.arrow", std::move(bytes),
              FOUND_STRATEGY_KIND);
}

ManifestBuilder& ManifestBuilder::useful_signal(const std::string& id, std::vector<std::string> files) {
  _useful_signals[id] = std::move(files);
  return *this;
}

ManifestBuilder& ManifestBuilder::put(const std::string& path, FileSource source) {
  add_feature_scope(path, source);
  _files.insert_or_assign(path, std::move(source));
  return *this;
}

ManifestBuilder& ManifestBuilder::remove(const std::string& path) {
  _files.erase(path);
  return *this;
}

ManifestBuilder& ManifestBuilder::universe(const std::string& name, Document more) {
  _universes[name] = std::move(more);
  return *this;
}

ManifestBuilder& ManifestBuilder::functions(Document more) {
  _functions = std::move(more);
  return *this;
}

ManifestBuilder& ManifestBuilder::set(const std::string& key, std::optional<Document> value) {
  _settings[key] = std::move(value);
  return *this;
}

ManifestBuilder& ManifestBuilder::edit(std::function<void(Document&)> change) {
  _edits.push_back(std::move(change));
  return *this;
}

ManifestBuilder& ManifestBuilder::bare(bool on) {
  _bare = on;
  return *this;
}

std::vector<std::string> ManifestBuilder::universes() const {
  std::vector<std::string> names;
  for (const auto& [name, more] : _universes) names.push_back(name);
  if (names.empty() && !_bare) names.emplace_back("u1");
  return names;
}

std::map<std::string, FileSource> ManifestBuilder::files_of(const ReleaseIdentity& release) const {
  auto files = _files;
  if (_bare) return files;
  for (const auto& name : universes()) {
    if (files.count(vocabulary_path(name)) > 0) continue;
    files.emplace(vocabulary_path(name),
                  text_source("vocabulary", sync::dump_json(_vocabulary_of(name, release)),
                              {{"named_universe", name}}));
  }
  Document functions = {
      {"era_number", release.era_number},
      {"functions", {{"rank", function_entry("rank", 1)}, {"blend", function_entry("blend", 2)}}},
      {"reductions", {"mean", "last"}}};
  merge(functions, _functions);
  files.emplace(FUNCTIONS_PATH, text_source("functions", sync::dump_json(functions)));
  files.emplace(SIGNALS_INDEX_PATH,
                text_source("signals_index", sync::dump_json(_signals_index_of(release))));
  return files;
}

Document ManifestBuilder::_vocabulary_of(const std::string& universe, const ReleaseIdentity& release) const {
  std::set<std::string> features;  // the epochs of a universe share names
  const auto folder = "features/" + universe + "/";
  for (auto at = _files.lower_bound(folder); at != _files.end() && at->first.starts_with(folder); ++at) {
    const auto name = at->first.substr(at->first.rfind('/') + 1);
    if (name.ends_with(".arrow")) features.insert(name.substr(0, name.size() - 6));
  }
  Document vocabulary = {
      {"era_number", release.era_number},
      {"named_universe", universe},
      {"features", features},
      {"metadata",
       {{"named_universe", universe}, {"t_signal_is", 1000}, {"t_strategy_is", 500}, {"n_instruments", 40}}},
      {"rotations", {{"hold", {{"name", "hold"}}}}},
      {"functions", {{"rank", function_entry("rank", 1)}}}};
  const auto named = _universes.find(universe);
  if (named == _universes.end()) return vocabulary;
  auto more = named->second;
  if (const auto* metadata = sync::find_member(more, "metadata");
      metadata != nullptr && metadata->is_object()) {
    merge(vocabulary["metadata"], *metadata);
    more.erase("metadata");
  }
  merge(vocabulary, more);
  return vocabulary;
}

Document ManifestBuilder::_signals_index_of(const ReleaseIdentity& release) const {
  Document index = {{"schema_version", 1},
                    {"era_number", release.era_number},
                    {"market_id", release.market_id},
                    {"found_signals", Document::object()},
                    {"found_strategies", Document::object()},
                    {"useful_signals", Document::object()}};
  for (const auto& [path, source] : _files) {
    const bool signal = source.kind == FOUND_SIGNAL_KIND;
    if (!signal && source.kind != FOUND_STRATEGY_KIND) continue;
    const auto segments = sync::text::split(path, "/");
    const auto& id = segments[std::min<std::size_t>(2, segments.size() - 1)];
    index[signal ? "found_signals" : "found_strategies"][id]["files"].push_back(path);
  }
  if (_useful_signals.empty()) index["useful_signals"] = index["found_signals"];
  for (const auto& [id, files] : _useful_signals) index["useful_signals"][id]["files"] = files;
  return index;
}

Document ManifestBuilder::manifest_of(const ReleaseIdentity& release, Document entries) const {
  Document manifest = {{"market_id", release.market_id},
                       {"era_number", release.era_number},
                       {"version", release.version},
                       {"base_url", release.base_url},
                       {"market", "crypto"},
                       {"named_universes", universes()},
                       {"pnl_column_count", 3},
                       {"shuffle_key_generation", "market-era-v1"}};
  if (!_bare) {
    manifest["functions"] = FUNCTIONS_PATH;
    manifest["signals_index"] = {{"schema_version", 1}, {"path", SIGNALS_INDEX_PATH}};
  }
  manifest["files"] = std::move(entries);
  for (const auto& [key, value] : _settings) {
    if (value) {
      manifest[key] = *value;
    } else {
      manifest.erase(key);
    }
  }
  for (const auto& change : _edits) change(manifest);
  return manifest;
}

}  // namespace tidalcrest::origin
