#include "siblings/distribution/parsed_manifest.hpp"

#include <utility>

#include "host/json.hpp"

namespace tidalcrest::sync {

ParsedManifest::ParsedManifest(std::shared_ptr<const Document> whole)
    : _whole(std::move(whole)), _table(nullptr) {
  const Document* files = find_member(*_whole, "files");
  if (files == nullptr) return;
  _entries = ManifestEntries(*files);
  _has_files = true;
}

ParsedManifest::ParsedManifest(std::shared_ptr<const std::string> text)
    : _text(std::move(text)), _table(_text) {}

ParsedManifest::ParsedManifest(const ParsedManifest& from, Document head, FileTable table)
    : _text(from._text),
      _head(std::move(head)),
      _table(std::move(table)),
      _has_files(from._has_files),
      _members_before_files(from._members_before_files) {
  if (_has_files) _entries = ManifestEntries(_table);
}

SharedManifest ParsedManifest::of_plain_text(std::shared_ptr<const std::string> text) {
  const std::shared_ptr<ParsedManifest> manifest(new ParsedManifest(std::move(text)));
  return manifest->_read_plain_text() ? manifest : nullptr;
}

bool ParsedManifest::_read_plain_text() {
  constexpr int ROOT_DEPTH = 1;
  PlainJsonReader reader(*_text);
  if (reader.next() != '{') return false;
  auto& head = _head.get_ref<Document::object_t&>();
  const bool plain = reader.members([&](std::string_view name) {
    if (name == "files") {
      if (std::exchange(_has_files, true) || reader.next() != '{') return false;
      _members_before_files = head.size();
      return _table.read(reader);
    }
    const auto [member, fresh] = head.emplace(name);
    return fresh && reader.value(member->second, ROOT_DEPTH);
  });
  if (_has_files) _entries = ManifestEntries(_table);
  return plain && reader.at_end();
}

Document ParsedManifest::document() const {
  if (_whole) return *_whole;
  if (!_has_files) return _head;
  Document document = Document::object();
  auto& members = document.get_ref<Document::object_t&>();
  const auto& head = _head.get_ref<const Document::object_t&>();
  const auto* const behind_files = head.begin() + _members_before_files;
  members.insert(head.begin(), behind_files);
  members.emplace("files", _files());
  members.insert(behind_files, head.end());
  return document;
}

Document ParsedManifest::_files() const {
  Document files = Document::object();
  auto& members = files.get_ref<Document::object_t&>();
  members.reserve(_entries.size());
  for (const auto& [path, entry] : _entries) members.emplace(path, entry.document());
  return files;
}

const Document& ParsedManifest::whole() const {
  if (_whole) return *_whole;
  std::call_once(_whole_asked, [this] { _whole_of_table = document(); });
  return _whole_of_table;
}

}  // namespace tidalcrest::sync
