#pragma once

#include <optional>
#include <string>

#include "artifacts/vocabulary.hpp"
#include "download/file_downloader.hpp"

namespace tidalcrest::sync {

/// Fills a root with good vocabularies. Called under the manager's sync lock, which alone allows a change of
/// the active view.
class VocabularyFiles {
 public:
  VocabularyFiles(std::string data_dir, std::string server_url, const FileDownloader& downloader,
                  const ManagerHttp& http, ActiveViewHolder& active, HashCache& hash_cache);
  /// True if any was downloaded. Without a target the manager's data directory is filled and its view gets
  /// the unmerged vocabularies; with a target the view is left alone.
  bool _download_vocabulary(const Manifest& server_manifest,
                            const std::optional<std::string>& target_data_dir = {}) const;
  /// Validates one vocabulary before it touches the disk; false for a path that is no vocabulary path.
  bool _download_validated_vocabulary_repair(const std::string& file_path, const FileEntry& file_info,
                                             SyncResult& result) const;

 private:
  void _set_vocabulary(Vocabularies vocabularies) const;

  const std::string _data_dir;
  const std::string _server_url;
  const FileDownloader& _downloader;
  const ManagerHttp& _http;
  ActiveViewHolder& _active;
  HashCache& _hash_cache;
};

}  // namespace tidalcrest::sync
