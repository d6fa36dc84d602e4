#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "siblings/distribution/file_table.hpp"
#include "tidalcrest/sync/document.hpp"
#include "tidalcrest/sync/manifest_entries.hpp"

namespace tidalcrest::sync {

/// A manifest as it was parsed. A plain text is kept as it is, with a table of its `files`; everything else,
/// and what was never a text, is kept as a document. Immutable; reading is thread-safe.
class ParsedManifest {
 public:
  /// Takes a document of any shape; nothing is checked.
  ParsedManifest(Document whole) : ParsedManifest(std::make_shared<const Document>(std::move(whole))) {}
  explicit ParsedManifest(std::shared_ptr<const Document> whole);
  /// Null when the text, valid UTF-8 of at most 4 GiB, is not plain JSON of one object whose `files` are
  /// objects.
  static std::shared_ptr<const ParsedManifest> of_plain_text(std::shared_ptr<const std::string> text);
  ParsedManifest(const ParsedManifest&) = delete;
  ParsedManifest& operator=(const ParsedManifest&) = delete;

  /// The members of the manifest, in general without `files`.
  const Document& head() const noexcept { return _whole ? *_whole : _head; }
  /// The `files`; empty when they are missing.
  const ManifestEntries& entries() const noexcept { return _entries; }
  bool has_files() const noexcept { return _has_files; }
  /// The document, made when it is asked for the first time: for a large manifest take `head` and `entries`.
  const Document& whole() const;
  /// The text that it was read from; null for a document.
  const std::shared_ptr<const std::string>& text() const noexcept { return _text; }

 private:
  explicit ParsedManifest(std::shared_ptr<const std::string> text);
  bool _read_plain_text();

  const std::shared_ptr<const Document> _whole;
  const std::shared_ptr<const std::string> _text;
  Document _head = Document::object();
  FileTable _table;
  ManifestEntries _entries;
  bool _has_files = false;
  mutable std::once_flag _whole_asked;
  mutable Document _whole_of_text;  // written once, under the flag
};

using SharedManifest = std::shared_ptr<const ParsedManifest>;

}  // namespace tidalcrest::sync
