#include "tidalcrest/sync/manifest_entries.hpp"

#include "host/json.hpp"
#include "host/text.hpp"
#include "siblings/distribution/file_table.hpp"

namespace tidalcrest::sync {

bool FileEntry::empty() const noexcept {
  if (_table != nullptr) return _table->members_of(_row) == 0;
  return _value == nullptr || _value->empty();
}

Document FileEntry::value(std::string_view key) const {
  if (_table != nullptr) return _table->value(_row, key);
  const Document* const member = _value != nullptr ? find_member(*_value, key) : nullptr;
  return member != nullptr ? *member : Document();
}

std::optional<std::string_view> FileEntry::text(std::string_view key) const noexcept {
  if (_table != nullptr) return _table->text(_row, key);
  const Document* const member = _value != nullptr ? find_member(*_value, key) : nullptr;
  if (member == nullptr || !member->is_string()) return std::nullopt;
  return member->get_ref<const std::string&>();
}

std::string FileEntry::plain_text(std::string_view key) const {
  if (const auto known = text(key)) return std::string(*known);
  const Document member = value(key);
  return sync::text::truthy(member) ? sync::text::str(member) : std::string();
}

Document FileEntry::document() const {
  if (_table != nullptr) return _table->document(_row);
  return _value != nullptr ? *_value : Document::object();
}

std::size_t ManifestEntries::size() const noexcept {
  if (_table != nullptr) return _table->size();
  return _files != nullptr ? _files->size() : 0;
}

ManifestEntries::value_type ManifestEntries::operator[](std::size_t index) const noexcept {
  if (_table != nullptr) return {_table->path(index), FileEntry(*_table, index)};
  const auto& [path, entry] = *(_files->begin() + index);
  return {path, FileEntry(entry)};
}

std::optional<FileEntry> ManifestEntries::find(std::string_view path) const noexcept {
  if (_table != nullptr) {
    const auto row = _table->find(path);
    return row ? std::optional<FileEntry>(std::in_place, *_table, *row) : std::nullopt;
  }
  if (_files == nullptr) return std::nullopt;
  const auto entry = _files->find(path);
  return entry != _files->end() ? std::optional<FileEntry>(std::in_place, entry->second) : std::nullopt;
}

}  // namespace tidalcrest::sync
