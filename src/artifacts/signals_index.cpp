#include "artifacts/signals_index.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <string_view>
#include <unordered_set>
#include <utility>

#include "artifacts/manifest_entry.hpp"
#include "artifacts/wrapped_failures.hpp"
#include "host/digest.hpp"
#include "host/json.hpp"
#include "host/local_path.hpp"
#include "host/text.hpp"
#include "manifest/as_manifest_error.hpp"
#include "manifest/paths.hpp"
#include "siblings/distribution/accepted_set.hpp"
#include "siblings/distribution/contained_files.hpp"
#include "siblings/distribution/manifest_document.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

constexpr const char* INDEX_LABEL = "signals_index sidecar";

Document take_section(Document& index_data, const std::string& name) {
  if (!index_data.is_object() || !index_data.contains(name)) throw KeyError(text::repr(name));
  Document& section = index_data[name];
  if (!section.is_object()) throw TypeError("signals_index " + name + " must be a JSON object");
  return std::move(section);
}

bool lists_any(const Document& signal, const std::unordered_set<std::string_view>& paths) {
  const Document* const files = find_member(signal, "files");
  return files && files->is_array() && std::any_of(files->begin(), files->end(), [&](const Document& path) {
           return path.is_string() && paths.contains(path.get_ref<const std::string&>());
         });
}

// The declared path; a manifest without a declaration fails as any other value that is no path.
std::string require_index_path(const Manifest& manifest) {
  if (auto rel_path = _manifest_signals_index_path(manifest)) return *std::move(rel_path);
  try {
    return client_manifest::validate_manifest_relative_path(Document());
  } catch (const TypeError& failure) {
    throw ManifestError(fmt::format("Invalid manifest file path None: {}", failure.what()));
  }
}

// The text of a required member of an update.
std::string required_text(const Document& update, const std::string& key) {
  const Document* const member = find_member(update, key);
  if (!member) throw KeyError(text::repr(key));
  return text::str(*member);
}

// The directory that holds `relative_path` when the file itself lies at `local_path`.
std::string root_of(const std::string& local_path, const std::string& relative_path) {
  std::filesystem::path root = absolute_path(local_path);
  for (std::size_t i = text::split(relative_path, "/").size(); i > 0; --i) root = root.parent_path();
  return root.string();
}

}  // namespace

FoundPnlSortKey _found_pnl_sort_key(std::int64_t mtime_ns, const std::string& relative_path) {
  // A valid manifest path has no second spelling, so it is its own normal form.
  return {-mtime_ns, _safe_manifest_relative_path(relative_path)};
}

std::optional<std::string> _manifest_signals_index_path(const Manifest& manifest) {
  return as_manifest_error(
      [&] { return client_manifest::validate_signals_index_manifest_declaration(*manifest.parsed()); });
}

void _apply_manifest_signals_index(const Manifest& manifest, Document index_data) {
  auto sections = std::make_shared<MembershipSections>();
  sections->found_signals = take_section(index_data, "found_signals");
  sections->found_strategies = take_section(index_data, "found_strategies");
  sections->useful_signals = take_section(index_data, "useful_signals");
  manifest.install_membership(std::move(sections));
}

void _apply_signal_result_counts(SyncResult& result, const Manifest& manifest,
                                 const FilesToDownload& downloaded_paths) {
  const auto sections = manifest.membership();
  if (!sections) throw TypeError("manifest membership sections are not loaded");
  std::unordered_set<std::string_view> paths;
  paths.reserve(downloaded_paths.size());
  for (const FileToDownload& file : downloaded_paths) paths.insert(file.file_path);
  const auto& useful_signals = sections->useful_signals.get_ref<const Document::object_t&>();
  result.n_found_strategies = static_cast<std::int64_t>(sections->found_strategies.size());
  result.n_useful_signals = static_cast<std::int64_t>(useful_signals.size());
  result.useful_signals_downloaded =
      std::count_if(useful_signals.begin(), useful_signals.end(),
                    [&](const auto& item) { return lists_any(item.second, paths); });
}

Document _validate_signals_index_bytes(std::string_view body, const Manifest& manifest) {
  client_manifest::AcceptedSet accepted = as_manifest_error(
      [&] { return client_manifest::validate_accepted_distribution_set(*manifest.parsed(), body); });
  _apply_manifest_signals_index(manifest, accepted.signals_index_document);
  return std::move(accepted.signals_index_document);
}

Document _verify_signals_index_bytes(std::string_view body, const Manifest& manifest) {
  const std::string rel_path = _manifest_signals_index_path(manifest).value_or("None");
  try {
    return _validate_signals_index_bytes(body, manifest);
  } catch (const ManifestError& failure) {
    const std::string message = failure.what();
    if (message.find("signals_index sidecar sha256") != std::string::npos) {
      throw IntegrityError(fmt::format("Checksum failure for {}: {}", rel_path, message));
    }
    if (message.find("signals_index sidecar size") != std::string::npos) {
      throw IntegrityError(fmt::format("Size failure for {}: {}", rel_path, message));
    }
    throw;
  }
}

bool _load_manifest_signals_index(const std::string& data_dir, const Manifest& manifest) {
  const std::string rel_path = _manifest_signals_index_path(manifest).value_or("None");
  client_manifest::AcceptedSet loaded = wrap_unusable("Unable to load authenticated accepted set", [&] {
    try {
      return client_manifest::load_accepted_distribution_set(data_dir, *manifest.parsed());
    } catch (const FileNotFoundError&) {
      throw SyncError("signals_index.json or membership file missing from local sync: " + rel_path);
    }
  });
  _apply_manifest_signals_index(manifest, std::move(loaded.signals_index_document));
  return true;
}

SignalsIndex::SignalsIndex(std::string data_dir, const FileDownloader& downloader, HashCache& hash_cache,
                           const FreshnessGuardHolder& freshness_guard)
    : _data_dir(std::move(data_dir)),
      _downloader(downloader),
      _hash_cache(hash_cache),
      _freshness_guard(freshness_guard) {}

bool SignalsIndex::_download_signals_index(const Manifest& server_manifest,
                                           const std::optional<std::string>& target_data_dir,
                                           SyncResult* result) const {
  const std::string& data_dir = target_data_dir ? *target_data_dir : _data_dir;
  const std::string rel_path = require_index_path(server_manifest);
  if (_local_sidecar_is_declared(server_manifest, data_dir, rel_path)) return false;

  SyncResult unseen_result;
  DownloadOptions options;
  options.generation = data_origin_of(server_manifest);
  options.target_data_dir = data_dir;
  const ManifestEntry entry(server_manifest, rel_path);
  _downloader._download_file({rel_path, entry.file_info()}, result ? *result : unseen_result, options);
  const std::string body = wrap_unusable("Unable to read downloaded signals_index sidecar", [&] {
    return client_manifest::read_contained_regular_file(data_dir, rel_path, INDEX_LABEL);
  });
  _verify_signals_index_bytes(body, server_manifest);
  return true;
}

bool SignalsIndex::_local_sidecar_is_declared(const Manifest& manifest, const std::string& data_dir,
                                              const std::string& rel_path) const {
  const std::optional<std::string> body = wrap_unusable("Unable to read local signals_index sidecar", [&] {
    return client_manifest::read_contained_regular_file_if_present(data_dir, rel_path, INDEX_LABEL);
  });
  if (!body) return false;
  const std::string sha256 = sha256_hex(*body);
  if (!ManifestEntry(manifest, rel_path).declares(sha256, body->size())) return false;
  // The declared bytes with content that is refused are no reason to ask for the same bytes again: this
  // throws.
  _verify_signals_index_bytes(*body, manifest);
  _hash_cache._remember_local_sha(data_dir, rel_path, sha256);
  return true;
}

void SignalsIndex::_record_signals_index_update(const Document& signals_index_update) const {
  const std::string relative_path = required_text(signals_index_update, "relative_path");
  const std::string sha256 = required_text(signals_index_update, "sha256");
  const std::string local_path = required_text(signals_index_update, "local_path");
  const Document* const kind = find_member(signals_index_update, "kind");
  if (const auto guard = _freshness_guard.get()) {
    guard->record_sync_update(relative_path, kind && text::truthy(*kind) ? text::str(*kind) : "signals_index",
                              sha256);
  }
  const std::string safe_path = _safe_manifest_relative_path(relative_path);
  _hash_cache._remember_local_sha(root_of(local_path, safe_path), safe_path, sha256);
}

}  // namespace tidalcrest::sync
