#pragma once

#include <cassert>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "siblings/distribution/file_table.hpp"
#include "tidalcrest/sync/document.hpp"
#include "tidalcrest/sync/manifest_entries.hpp"

namespace tidalcrest::sync {

class ParsedManifest;
using SharedManifest = std::shared_ptr<const ParsedManifest>;

/// A manifest as it was parsed. A plain text is kept as it is, with a table of its `files` (which may leave
/// out what is not wanted); everything else, and what was never a text, is kept as a document. Immutable;
/// reading is thread-safe.
class ParsedManifest {
 public:
  /// Takes a document of any shape; nothing is checked.
  explicit ParsedManifest(Document whole)
      : ParsedManifest(std::make_shared<const Document>(std::move(whole))) {}
  explicit ParsedManifest(std::shared_ptr<const Document> whole);
  /// Null when the text, valid UTF-8 of at most 4 GiB, is not plain JSON of one object whose `files` are
  /// objects.
  static SharedManifest of_plain_text(std::shared_ptr<const std::string> text);
  ParsedManifest(const ParsedManifest&) = delete;
  ParsedManifest& operator=(const ParsedManifest&) = delete;

  /// The members of the manifest, in general without `files`.
  const Document& head() const noexcept { return _whole ? *_whole : _head; }
  /// The `files`; empty when they are missing.
  const ManifestEntries& entries() const noexcept { return _entries; }
  bool has_files() const noexcept { return _has_files; }
  /// The text whose table this is; null for a document.
  const std::shared_ptr<const std::string>& text() const noexcept { return _text; }

  /// A new document of everything, as large as several times the text.
  Document document() const;
  /// The same, made when it is asked for the first time, and then kept.
  const Document& whole() const;

  /// This manifest, which is kept as its text, without the entries that `is_dropped(path, entry)` holds for
  /// and with another head; the keys of that are the same.
  template <class Predicate>
  SharedManifest rewritten(Document head, Predicate is_dropped) const {
    assert(_text);
    auto table =
        _table.without([&](std::size_t row) { return is_dropped(_table.path(row), FileEntry(_table, row)); });
    return SharedManifest(new ParsedManifest(*this, std::move(head), std::move(table)));
  }

 private:
  explicit ParsedManifest(std::shared_ptr<const std::string> text);
  ParsedManifest(const ParsedManifest& from, Document head, FileTable table);
  bool _read_plain_text();
  Document _files() const;

  const std::shared_ptr<const Document> _whole;
  const std::shared_ptr<const std::string> _text;
  Document _head = Document::object();
  FileTable _table;
  ManifestEntries _entries;
  bool _has_files = false;
  std::size_t _members_before_files = 0;  // of the head
  mutable std::once_flag _whole_asked;
  mutable Document _whole_of_table;  // written once, under the flag
};

}  // namespace tidalcrest::sync
