#include <algorithm>

#include "artifacts/functions_file.hpp"
#include "artifacts/vocabulary.hpp"
#include "cohort/active_view.hpp"
#include "cohort/staged_members.hpp"
#include "fuzz/fed_file.hpp"
#include "fuzz/targets.hpp"
#include "host/digest.hpp"
#include "host/json.hpp"
#include "host/plain_json.hpp"
#include "host/text.hpp"
#include "manifest/feature_paths.hpp"
#include "manifest/identity.hpp"
#include "manifest/paths.hpp"
#include "manifest/persistence.hpp"
#include "manifest/sanitising.hpp"
#include "rotation/catalog.hpp"
#include "rotation/planner.hpp"
#include "rotation/search_refresh.hpp"
#include "siblings/distribution/accepted_set.hpp"
#include "siblings/distribution/manifest_document.hpp"
#include "siblings/functions/vocabulary.hpp"
#include "support/temp_dir.hpp"
#include "tidalcrest/sync/errors.hpp"
#include "tidalcrest/sync/manifest.hpp"

namespace tidalcrest::fuzz {

using namespace sync;

namespace {

constexpr std::int64_t FREE_BYTES = std::int64_t{1} << 40;

// The path rule once more, written from its text.
bool is_relative_path(const std::string& path) {
  constexpr std::string_view OTHERS = "-._~!$&'()*+,;=:@/";
  if (path.empty() || path.size() > 1024) return false;
  for (const char c : path) {
    const bool letter_or_digit = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    if (!letter_or_digit && OTHERS.find(c) == std::string_view::npos) return false;
  }
  for (std::size_t at = 0; at <= path.size();) {
    const std::size_t slash = std::min(path.find('/', at), path.size());
    const std::string segment = path.substr(at, slash - at);
    if (segment.empty() || segment == "." || segment == ".." || segment.size() > 250) return false;
    at = slash + 1;
  }
  return true;
}

void check_declared_files(const Manifest& manifest) {
  for (const auto& [path, entry] : manifest.files().get_ref<const Document::object_t&>()) {
    require(is_relative_path(path), "a path of an accepted manifest breaks the path rule");
    require(entry.is_object(), "an entry of an accepted manifest is no object");
    for (auto slash = path.find('/'); slash != std::string::npos; slash = path.find('/', slash + 1))
      require(!manifest.files().contains(path.substr(0, slash)), "a path is a directory of another");
  }
}

// What a first sync would fetch.
void check_staged_plan(const Manifest& manifest, const std::vector<std::string>& planned_paths) {
  static const sync::testing::TempDir data;
  static HashCache nothing_known(data.path());
  const StagingRoots roots{
      .active_root = data.path("nothing yet"), .candidate_root = data.path(), .repair_relative = {}};
  const SelectedMembers members =
      reuse_selected_members(manifest, planned_paths, {}, roots, data.path(), nothing_known, [] {});
  require(members.files_to_download.size() == members.selected_paths.size(), "a member is not fetched");
  for (const auto& file : members.files_to_download) {
    const std::string place = _manifest_local_path(data.path(), file.file_path);
    require(place.starts_with(data.path() + "/"), "a member would lie outside of its root");
  }
}

// The manifest as text and table, and as the document that the other reader makes.
void check_same_document(const ParsedManifest& parsed, const Document& document) {
  require(parsed.whole().dump() == document.dump(), "two readers read two manifests");
  for (const auto& [key, value] : document.get_ref<const Document::object_t&>()) {
    if (key != "files") require(parsed.head().at(key) == value, "a member differs");
  }
  const Document* files = find_member(document, "files");
  require(parsed.entries().size() == (files != nullptr ? files->size() : 0), "the numbers of entries differ");
  std::size_t index = 0;
  for (const auto& [path, entry] : parsed.entries()) {
    const auto& [expected_path, expected] = *(files->get_ref<const Document::object_t&>().begin() + index++);
    require(path == expected_path && entry.document().dump() == expected.dump(), "an entry differs");
    require(parsed.entries().contains(path), "an entry is not found");
    for (const auto& [key, value] : expected.get_ref<const Document::object_t&>())
      require(entry.value(key) == value && entry.text(key).has_value() == value.is_string(),
              "a member differs");
  }
}

}  // namespace

void feed_manifest(std::string_view bytes) {
  static const sync::testing::TempDir data;
  if (const auto plain = text::is_valid_utf8(bytes) ? read_plain_json(bytes) : std::nullopt) {
    require(plain->dump() == Document::parse(bytes).dump(), "two readers read two documents");
  }
  const auto text = std::make_shared<const std::string>(bytes);
  const auto parsed = _parse_full_distribution_manifest(text, "fuzzed manifest");
  check_same_document(*parsed, _parse_full_distribution_manifest_bytes(bytes, "fuzzed manifest"));
  const Manifest manifest(parsed);
  const auto served = std::make_shared<const Document>(parsed->document());
  require(manifest.data().dump() == _sanitize_manifest_data_for_sync(served)->dump(),
          "a text and a document are sanitised to two manifests");
  check_declared_files(manifest);
  _require_manifest_market_identity(manifest, 1, "fuzzed manifest");
  const FeaturePaths paths(manifest);
  for (const auto& path : _vocabulary_manifest_paths(manifest)) _vocabulary_named_universe_from_path(path);

  ActiveViewHolder active{std::make_shared<ActiveView>()};
  const SearchConsumers consumers(active);
  RotationPlanner planner(data.path(), std::nullopt, consumers, {});
  const PlannedRotation planned = planner._plan_feature_rotation_for_sync(manifest, FREE_BYTES);
  const auto& selection = planned.rotation_plan.selection;
  RotationPlanner::_precheck_rotation_disk_budget(selection, FREE_BYTES);
  check_staged_plan(manifest, selection.active_relative_paths);
}
const Registered MANIFEST{"manifest", feed_manifest};

void feed_paths(std::string_view bytes) {
  const std::string path(bytes);
  const bool right = is_relative_path(path);
  bool accepted = true;
  try {
    client_manifest::validate_manifest_relative_path(path);
  } catch (const ValueError&) {
    accepted = false;
  }
  require(accepted == right, "the path rule and its twin differ");
  if (!right) return;
  const std::string url = _manifest_file_url("https://api.example", path, "https://data.example/base");
  require(url == "https://data.example/base/" + path,
          "an accepted path does not stand in its address as it is");
}
const Registered PATHS{"paths", feed_paths};

void feed_signals_index(std::string_view bytes) {
  const Document manifest = {
      {"era_number", 7},
      {"market_id", 1},
      {"signals_index", {{"schema_version", 1}, {"path", "signals_index.json"}}},
      {"files",
       {{"signals_index.json",
         {{"kind", "signals_index"}, {"sha256", sha256_hex(bytes)}, {"size_bytes", bytes.size()}}},
        {"found_signals/u1/s1/is/pnl.arrow", {{"kind", "found_signal_is_pnl"}}}}}};
  const auto accepted = client_manifest::validate_accepted_distribution_set(ParsedManifest(manifest), bytes);
  for (const char* section : {"found_signals", "found_strategies", "useful_signals"})
    require(accepted.signals_index_document.at(section).is_object(), "a section is no object");
}
const Registered SIGNALS_INDEX{"signals_index", feed_signals_index};

void feed_vocabulary(std::string_view bytes) {
  static const sync::testing::TempDir data;
  static const FedFile file(data.path("functions.json"));
  const auto parts = parts_of(bytes, 2);
  file.set(parts[1]);
  const Manifest manifest(Document{
      {"era_number", 1},
      {"functions", "functions.json"},
      {"files",
       {{"functions.json",
         {{"kind", "functions"}, {"sha256", sha256_hex(parts[1])}, {"size_bytes", parts[1].size()}}}}}});
  Document functions = Document::object();
  try {
    functions = _validate_functions_file(data.path(), manifest);
  } catch (const Failure&) {
    // The vocabulary is fed all the same.
  }
  const Document vocabulary = _validate_vocabulary_bytes(parts[0], 1, "u1");
  const Document merged = merge_functions_vocabulary(functions, vocabulary, "u1", 1);
  require(merged.is_object(), "a merged vocabulary is no object");
  for (const auto& [key, value] : vocabulary.get_ref<const Document::object_t&>())
    require(merged.contains(key), "a merge lost a member of the vocabulary");
}
const Registered VOCABULARY{"vocabulary", feed_vocabulary};

}  // namespace tidalcrest::fuzz
