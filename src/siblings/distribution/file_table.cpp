#include "siblings/distribution/file_table.hpp"

#include <algorithm>
#include <bit>
#include <functional>
#include <utility>

#include "host/json.hpp"
#include "host/text.hpp"
#include "tidalcrest/sync/manifest_entries.hpp"

namespace tidalcrest::sync {

bool FileTable::read(PlainJsonReader& reader) {
  const bool plain = reader.members(
      [&](std::string_view path) { return reader.next() == '{' && _read_entry(reader, path); });
  if (!plain || !_index()) return false;
  _rows.shrink_to_fit();
  _members.shrink_to_fit();
  return true;
}

bool FileTable::_read_entry(PlainJsonReader& reader, std::string_view path) {
  const std::size_t row = _rows.size();
  _rows.push_back({_place(path), static_cast<Place>(path.size()), static_cast<Place>(_members.size())});
  return reader.members([&](std::string_view key) {
    if (members_of(row) == MEMBERS_LIMIT || _find_member(row, key) != nullptr) return false;
    reader.next();
    _members.push_back({_place(key), static_cast<Place>(reader.position())});
    return reader.skip_value(ENTRY_DEPTH);
  });
}

// False for two equal paths.
bool FileTable::_index() {
  _slots.assign(std::bit_ceil(2 * _rows.size() + 1), FREE);
  for (std::size_t row = 0; row < _rows.size(); ++row) {
    Place& slot = _slots[_slot_of(path(row))];
    if (slot != FREE) return false;
    slot = static_cast<Place>(row);
  }
  return true;
}

// The path's own slot, or the free one where it would be put.
std::size_t FileTable::_slot_of(std::string_view path) const noexcept {
  const std::size_t mask = _slots.size() - 1;
  std::size_t slot = std::hash<std::string_view>()(path) & mask;
  while (_slots[slot] != FREE && this->path(_slots[slot]) != path) slot = (slot + 1) & mask;
  return slot;
}

std::optional<std::size_t> FileTable::find(std::string_view path) const noexcept {
  if (_slots.empty()) return std::nullopt;
  const Place row = _slots[_slot_of(path)];
  return row == FREE ? std::nullopt : std::optional<std::size_t>(row);
}

const FileTable::Member* FileTable::_find_member(std::size_t row, std::string_view key) const noexcept {
  const std::string_view text = *_text;
  const auto is_named = [&](const Member& member) {
    return text.compare(member.key_begin, key.size(), key) == 0 && text[member.key_begin + key.size()] == '"';
  };
  const Member* const first = _members.data() + _rows[row].first_member;
  const Member* const last = _members.data() + _end_of(row);
  const Member* const found = std::find_if(first, last, is_named);
  return found == last ? nullptr : found;
}

Document FileTable::_value(const Member& member) const {
  Document value;
  PlainJsonReader(std::string_view(*_text).substr(member.value_begin)).value(value, ENTRY_DEPTH);
  return value;
}

Document FileTable::value(std::size_t row, std::string_view key) const {
  const Member* const member = _find_member(row, key);
  return member == nullptr ? Document() : _value(*member);
}

std::optional<std::string_view> FileTable::text(std::size_t row, std::string_view key) const noexcept {
  const Member* const member = _find_member(row, key);
  if (member == nullptr || (*_text)[member->value_begin] != '"') return std::nullopt;
  return _quoted(member->value_begin + 1);
}

Document FileTable::document(std::size_t row) const {
  Document entry = Document::object();
  for (std::size_t i = _rows[row].first_member; i < _end_of(row); ++i) {
    entry.get_ref<Document::object_t&>().emplace(_key(_members[i]), _value(_members[i]));
  }
  return entry;
}

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
