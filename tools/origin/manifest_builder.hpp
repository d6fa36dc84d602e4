#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "origin/generated_bytes.hpp"
#include "tidalcrest/sync/document.hpp"

namespace tidalcrest::origin {

using sync::Document;

/// The content of a file of the release before, taken over as it is.
struct KeptFile {};

using FileContent =
    std::variant<std::shared_ptr<const std::string>, GeneratedBytes, std::filesystem::path, KeptFile>;

/// One file of a release before it is written.
struct FileSource {
  std::string kind;
  FileContent content;
  Document extra = Document::object();  ///< members of the manifest entry; they win over computed ones
};

/// Which release a builder is made into.
struct ReleaseIdentity {
  std::int64_t market_id = 1;
  std::int64_t era_number = 1;
  std::int64_t version = 1;
  std::string base_url;
};

/// The content of one release: a value that can be kept, changed and published again.
///
/// What every release needs is made on its own unless a file of that path is given: a vocabulary per universe
/// (universe "u1" when none is named), `functions.json`, and `signals_index.json` from the found files.
/// Functions that change the builder return it.
class ManifestBuilder {
 public:
  /// Number and version of the release; when absent, the era is that of the release before and the version
  /// the next one in its era.
  ManifestBuilder& era(std::int64_t era_number);
  ManifestBuilder& version(std::int64_t version);

  /// `extra` holds further members of the manifest entry. It may also say another `sha256` or `size_bytes`
  /// than the true one. Replaces a file of the same path.
  ManifestBuilder& file(const std::string& path, std::string bytes, const std::string& kind = "feature",
                        Document extra = Document::object());
  /// A file from a number; large ones never lie in memory.
  ManifestBuilder& generated(const std::string& path, GeneratedBytes content,
                             const std::string& kind = "feature", Document extra = Document::object());
  /// `features/{universe}/{epoch}/{name}.arrow`
  ManifestBuilder& feature(const std::string& universe, const std::string& epoch, const std::string& name,
                           std::string bytes);
  /// `found_signals/{universe}/{id}/is/pnl.arrow`, and its entry in the signals index.
  ManifestBuilder& found_signal(const std::string& universe, const std::string& id, std::string bytes);
  /// `found_strategies/{universe}/{id}/epoch/pnl.arrow`, and its entry in the signals index.
  ManifestBuilder& found_strategy(const std::string& universe, const std::string& id, std::string bytes);
  /// Without any, the useful signals are the found signals.
  ManifestBuilder& useful_signal(const std::string& id, std::vector<std::string> files);
  ManifestBuilder& put(const std::string& path, FileSource source);
  ManifestBuilder& remove(const std::string& path);

  /// `more` replaces or adds members of the vocabulary document; its `metadata` replaces single members.
  ManifestBuilder& universe(const std::string& name, Document more = Document::object());
  /// Members of `functions.json`.
  ManifestBuilder& functions(Document more);
  /// A top-level member of the manifest, in place of the computed one; absent takes it out.
  ManifestBuilder& set(const std::string& key, std::optional<Document> value);
  /// Changes the finished manifest before it is written.
  ManifestBuilder& edit(std::function<void(Document&)> change);
  /// Nothing is made on its own: no vocabulary, no functions file, no signals index.
  ManifestBuilder& bare(bool on = true);

  std::optional<std::int64_t> era_number() const noexcept { return _era; }
  std::optional<std::int64_t> version_number() const noexcept { return _version; }
  const std::map<std::string, FileSource>& files() const noexcept { return _files; }
  std::vector<std::string> universes() const;

  /// Every file of the release, with what is made on its own.
  std::map<std::string, FileSource> files_of(const ReleaseIdentity& release) const;
  /// The manifest for these entries (path to entry).
  Document manifest_of(const ReleaseIdentity& release, Document entries) const;

 private:
  Document _vocabulary_of(const std::string& universe, const ReleaseIdentity& release) const;
  Document _signals_index_of(const ReleaseIdentity& release) const;

  std::optional<std::int64_t> _era;
  std::optional<std::int64_t> _version;
  std::map<std::string, FileSource> _files;
  std::map<std::string, Document> _universes;
  std::map<std::string, std::vector<std::string>> _useful_signals;
  std::map<std::string, std::optional<Document>> _settings;
  std::vector<std::function<void(Document&)>> _edits;
  Document _functions = Document::object();
  bool _bare = false;
};

/// The kind that a path tells by its place: features, found files, vocabularies, modules; "reference" for
/// everything else.
std::string kind_for_path(const std::string& path);

}  // namespace tidalcrest::origin
