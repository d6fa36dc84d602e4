#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "download/file_downloader.hpp"
#include "manifest/file_kinds.hpp"
#include "tidalcrest/sync/manifest.hpp"
#include "tidalcrest/sync/records.hpp"

namespace tidalcrest::sync {

/// Ascending order is newest first, ties broken by path.
using FoundPnlSortKey = std::pair<std::int64_t, std::string>;
FoundPnlSortKey _found_pnl_sort_key(std::int64_t mtime_ns, const std::string& relative_path);

/// Absent when the manifest declares no index; `ManifestError` for a bad declaration.
std::optional<std::string> _manifest_signals_index_path(const Manifest& manifest);
/// Installs the three sections of a validated index, all or none: `KeyError` for a missing section,
/// `TypeError` for one that is no object. Takes the document by value: one that is moved in costs no copy.
void _apply_manifest_signals_index(const Manifest& manifest, Document index_data);
/// Sets three counters of `result`. `TypeError` for a manifest whose sections have not been loaded.
void _apply_signal_result_counts(SyncResult& result, const Manifest& manifest,
                                 const FilesToDownload& downloaded_paths = {});
/// Proves a sidecar against its manifest, applies it and gives the document. `ManifestError`.
Document _validate_signals_index_bytes(std::string_view body, const Manifest& manifest);
/// The same in the vocabulary of downloads: a wrong digest or size is an `IntegrityError`.
Document _verify_signals_index_bytes(std::string_view body, const Manifest& manifest);
/// Loads the sidecar of a root together with the presence of its members, and applies it. Gives true.
bool _load_manifest_signals_index(const std::string& data_dir, const Manifest& manifest);

class SignalsIndex {
 public:
  SignalsIndex(std::string data_dir, const FileDownloader& downloader, HashCache& hash_cache,
               const FreshnessGuardHolder& freshness_guard);
  /// True when a download was made. `result` null: the counters go nowhere.
  bool _download_signals_index(const Manifest& server_manifest,
                               const std::optional<std::string>& target_data_dir = {},
                               SyncResult* result = nullptr) const;
  /// Tells the freshness guard and the hash cache of a sidecar that the caller has just written:
  /// `relative_path`, `sha256` and `local_path` are required (`KeyError`), `kind` defaults to
  /// "signals_index".
  void _record_signals_index_update(const Document& signals_index_update) const;

 private:
  /// Whether the root already holds the declared sidecar; then it has been verified, applied and remembered.
  bool _local_sidecar_is_declared(const Manifest& manifest, const std::string& data_dir,
                                  const std::string& rel_path) const;

  const std::string _data_dir;
  const FileDownloader& _downloader;
  HashCache& _hash_cache;
  const FreshnessGuardHolder& _freshness_guard;
};

}  // namespace tidalcrest::sync
