#include "manifest/sanitising.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <functional>
#include <map>
#include <string_view>
#include <unordered_set>
#include <utility>

#include "host/json.hpp"
#include "host/never_destroyed.hpp"
#include "host/text.hpp"
#include "siblings/distribution/artifact_rotation.hpp"
#include "siblings/distribution/parsed_manifest.hpp"
#include "siblings/runtime/modules.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

constexpr std::array RETIRED_UNSUPPORTED_RUNTIME_MODULE_NAMES = {"backtester", "risk_model"};
constexpr std::array RUNTIME_MODULE_EXTENSION_SUFFIXES = {".so", ".pyd"};
constexpr std::array FOUND_SECTIONS = {"found_signals", "found_strategies"};
constexpr std::size_t FOUND_PNL_PATH_SEGMENTS = 5;

using OwnedPaths = std::unordered_set<std::string>;
using Replacements = std::map<std::string, Document, std::less<>>;

const Document::object_t& members(const Document& object) {
  return object.get_ref<const Document::object_t&>();
}

void require_object(const Document& manifest_data) {
  if (!manifest_data.is_object()) {
    throw TypeError(
        fmt::format("manifest document must be a JSON object, got {}", text::type_name(manifest_data)));
  }
}

// The `files` of the document, an empty object when it has none. Any other type, null included, is no
// manifest.
const Document& files_of(const Document& manifest_data) {
  static const auto& none = never_destroyed<const Document>(Document::object());
  require_object(manifest_data);
  const Document* files = find_member(manifest_data, "files");
  if (files == nullptr) return none;
  if (!files->is_object()) {
    throw TypeError(fmt::format("manifest files must be a JSON object, got {}", text::type_name(*files)));
  }
  return *files;
}

bool kind_is(const FileEntry& file_info, std::string_view kind) { return file_info.text("kind") == kind; }

template <class Predicate>
bool any_entry(const ManifestEntries& entries, Predicate is_meant) {
  return std::any_of(entries.begin(), entries.end(),
                     [&](const auto& entry) { return is_meant(entry.first, entry.second); });
}

// The entries that `drop` does not name, in order; absent when it names none, so that a clean document costs
// no copy.
template <class Drop>
std::optional<Document> without_entries(const Document& files, Drop drop) {
  const auto& entries = members(files);
  const auto dropped = [&drop](const auto& entry) { return drop(entry.first, entry.second); };
  if (std::none_of(entries.begin(), entries.end(), dropped)) return std::nullopt;
  Document kept = Document::object();
  auto& kept_entries = kept.get_ref<Document::object_t&>();
  kept_entries.reserve(entries.size());
  for (const auto& entry : entries) {
    if (!dropped(entry)) kept_entries.emplace(entry.first, entry.second);
  }
  return kept;
}

// A copy of the object in which the given members stand in place of its own; what they replace is never
// copied.
Document with_members(const Document& object, Replacements replaced) {
  Document copy = Document::object();
  auto& copied = copy.get_ref<Document::object_t&>();
  for (const auto& [key, value] : members(object)) {
    const auto replacement = replaced.find(key);
    if (replacement == replaced.end()) {
      copied.emplace(key, value);
    } else {
      copied.emplace(key, std::move(replacement->second));
    }
  }
  return copy;
}

Document with_files(const Document& object, Document files) {
  Replacements replaced;
  replaced.emplace("files", std::move(files));
  return with_members(object, std::move(replaced));
}

SharedDocument shared(Document document) { return std::make_shared<const Document>(std::move(document)); }

// An artifact row's path, for the predicate's sake.
std::string artifact_path(const Document& row) {
  for (const char* key : {"relative_path", "path"}) {
    if (const Document* path = find_member(row, key)) return text::str(*path);
  }
  return {};
}

std::optional<Document> without_unsupported_artifacts(const Document& manifest_data) {
  const Document* artifacts = find_member(manifest_data, "artifacts");
  if (artifacts == nullptr || !artifacts->is_array()) return std::nullopt;
  const auto dropped = [](const Document& row) {
    return row.is_object() && _is_unsupported_runtime_module_file(artifact_path(row), row);
  };
  if (std::none_of(artifacts->begin(), artifacts->end(), dropped)) return std::nullopt;
  Document kept = Document::array();
  std::copy_if(artifacts->begin(), artifacts->end(), std::back_inserter(kept.get_ref<Document::array_t&>()),
               [&dropped](const Document& row) { return !dropped(row); });
  return kept;
}

// One entry of a found section without the retired paths; absent when none of its files is left.
std::optional<Document> without_paths(const Document& entry, const OwnedPaths& retired) {
  const Document* files = find_member(entry, "files");
  if (files == nullptr || !files->is_array()) return entry;
  Document kept = Document::array();
  for (const Document& path : *files) {
    if (!retired.contains(text::str(path))) kept.push_back(path);
  }
  if (kept.empty()) return std::nullopt;
  return with_files(entry, std::move(kept));
}

Document section_without_paths(const Document& section, const OwnedPaths& retired) {
  Document kept = Document::object();
  for (const auto& [id, entry] : members(section)) {
    if (auto filtered = without_paths(entry, retired)) kept[id] = *std::move(filtered);
  }
  return kept;
}

void replace_found_sections(const Document& head, const OwnedPaths& retired, Replacements& replaced) {
  for (const char* name : FOUND_SECTIONS) {
    const Document* section = find_member(head, name);
    if (section == nullptr || !section->is_object()) continue;
    replaced.emplace(name, section_without_paths(*section, retired));
  }
}

bool is_never_fetched(std::string_view path, const FileEntry& file_info) {
  return _is_agent_bundle_declaration_file(path, file_info) ||
         _is_unsupported_runtime_module_file(path, file_info);
}

bool is_dropped(std::string_view path, const FileEntry& file_info) {
  return is_never_fetched(path, file_info) || _is_retired_found_pnl_long_file(path);
}

OwnedPaths retired_found_paths(const Document& files) {
  OwnedPaths retired;
  for (const auto& [path, entry] : members(files)) {
    if (_is_retired_found_pnl_long_file(path)) retired.insert(path);
  }
  return retired;
}

}  // namespace

bool _is_agent_bundle_declaration_file(std::string_view file_path, const FileEntry& file_info) {
  return file_path.ends_with(".pxd") || kind_is(file_info, "vault_declaration") ||
         kind_is(file_info, "backtester_declaration");
}

bool _is_unsupported_runtime_module_file(std::string_view, const FileEntry& file_info) {
  const std::string_view kind = artifact_rotation::manifest_file_kind(file_info);
  return kind.ends_with(RUNTIME_MODULE_KIND_SUFFIX) && !is_runtime_module_kind(kind);
}

std::optional<std::string> _retired_unsupported_runtime_module_name_from_path(const std::string& file_path) {
  for (const char* suffix : RUNTIME_MODULE_EXTENSION_SUFFIXES) {
    if (!file_path.ends_with(suffix)) continue;  // nearly every path
    const std::string_view name = std::string_view(file_path).substr(file_path.find_last_of("/\\") + 1);
    const std::string ending = "-" + CURRENT_PLATFORM + suffix;
    if (!name.ends_with(ending)) continue;
    const std::string_view stem = name.substr(0, name.size() - ending.size());
    const auto& retired = RETIRED_UNSUPPORTED_RUNTIME_MODULE_NAMES;
    if (std::find(retired.begin(), retired.end(), stem) != retired.end()) return std::string(stem);
  }
  return std::nullopt;
}

bool _is_retired_unsupported_runtime_module_path(const std::string& file_path) {
  return _retired_unsupported_runtime_module_name_from_path(file_path).has_value();
}

bool _is_retired_found_pnl_long_file(std::string_view file_path) {
  if (file_path.find("long.arrow") == std::string::npos) return false;  // nearly every path ends here
  std::string path(file_path);
  std::replace(path.begin(), path.end(), '\\', '/');
  path.erase(0, path.find_first_not_of('/'));
  path.erase(path.find_last_not_of('/') + 1);
  const auto segments = text::split(path, "/");
  return segments.size() == FOUND_PNL_PATH_SEGMENTS &&
         std::find(FOUND_SECTIONS.begin(), FOUND_SECTIONS.end(), segments.front()) != FOUND_SECTIONS.end() &&
         (segments.back() == "pnl_long.arrow" || segments.back() == "pnl.long.arrow");
}

bool _manifest_has_agent_bundle_declarations(const Manifest& manifest) {
  return any_entry(manifest.entries(), _is_agent_bundle_declaration_file);
}

bool _manifest_has_retired_found_pnl_long_files(const Manifest& manifest) {
  return any_entry(manifest.entries(), [](std::string_view path, const FileEntry&) {
    return _is_retired_found_pnl_long_file(path);
  });
}

SharedDocument _drop_agent_bundle_declaration_files(const SharedDocument& manifest_data) {
  auto files = without_entries(files_of(*manifest_data), _is_agent_bundle_declaration_file);
  if (!files) return manifest_data;
  return shared(with_files(*manifest_data, *std::move(files)));
}

SharedDocument _drop_unsupported_runtime_module_files(const SharedDocument& manifest_data) {
  auto files = without_entries(files_of(*manifest_data), _is_unsupported_runtime_module_file);
  auto artifacts = without_unsupported_artifacts(*manifest_data);
  if (!files && !artifacts) return manifest_data;
  Replacements replaced;
  if (files) replaced.emplace("files", *std::move(files));
  if (artifacts) replaced.emplace("artifacts", *std::move(artifacts));
  return shared(with_members(*manifest_data, std::move(replaced)));
}

SharedDocument _drop_retired_found_pnl_long_files(const SharedDocument& manifest_data) {
  const Document& files = files_of(*manifest_data);
  const OwnedPaths retired = retired_found_paths(files);
  if (retired.empty()) return manifest_data;
  const auto is_retired = [&retired](const std::string& path, const FileEntry&) {
    return retired.contains(path);
  };
  Replacements replaced;
  replaced.emplace("files", *without_entries(files, is_retired));
  replace_found_sections(*manifest_data, retired, replaced);
  return shared(with_members(*manifest_data, std::move(replaced)));
}

SharedDocument _sanitize_manifest_data_for_sync(const SharedDocument& manifest_data) {
  return _drop_retired_found_pnl_long_files(
      _drop_unsupported_runtime_module_files(_drop_agent_bundle_declaration_files(manifest_data)));
}

SharedManifest _sanitize_manifest_for_sync(const SharedManifest& manifest) {
  if (!manifest->text()) {
    const SharedDocument document(manifest, &manifest->whole());
    const SharedDocument rewritten = _sanitize_manifest_data_for_sync(document);
    return rewritten == document ? manifest : std::make_shared<const ParsedManifest>(rewritten);
  }
  OwnedPaths retired;
  bool anything_is_dropped = false;
  for (const auto& [path, file_info] : manifest->entries()) {
    if (!is_dropped(path, file_info)) continue;
    anything_is_dropped = true;
    if (!is_never_fetched(path, file_info)) retired.emplace(path);
  }
  auto artifacts = without_unsupported_artifacts(manifest->head());
  if (!anything_is_dropped && !artifacts) return manifest;
  Replacements replaced;
  if (artifacts) replaced.emplace("artifacts", *std::move(artifacts));
  if (!retired.empty()) replace_found_sections(manifest->head(), retired, replaced);
  return manifest->rewritten(with_members(manifest->head(), std::move(replaced)), is_dropped);
}

}  // namespace tidalcrest::sync
