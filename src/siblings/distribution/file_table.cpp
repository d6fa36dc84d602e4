#include "siblings/distribution/file_table.hpp"

#include <algorithm>
#include <bit>
#include <functional>

namespace tidalcrest::sync {

bool FileTable::read(PlainJsonReader& reader) {
  const bool plain = reader.members(
      [&](std::string_view path) { return reader.next() == '{' && _read_entry(reader, path); });
  if (!plain || !_index()) return false;
  _rows.shrink_to_fit();
  _members->shrink_to_fit();
  return true;
}

bool FileTable::_read_entry(PlainJsonReader& reader, std::string_view path) {
  if (path.size() > PATH_BYTES_LIMIT) return false;
  Row row{_place(path), static_cast<Place>(_members->size()), static_cast<std::uint16_t>(path.size()), 0};
  const bool plain = reader.members([&](std::string_view key) {
    if (row.members == MEMBERS_LIMIT || _find_member(row, key) != nullptr) return false;
    reader.next();
    _members->push_back({_place(key), static_cast<Place>(reader.position())});
    ++row.members;
    return reader.skip_value(ENTRY_DEPTH);
  });
  _rows.push_back(row);
  return plain;
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

const FileTable::Member* FileTable::_find_member(const Row& row, std::string_view key) const noexcept {
  const std::string_view text = *_text;
  const auto is_named = [&](const Member& member) {
    return text.compare(member.key_begin, key.size(), key) == 0 && text[member.key_begin + key.size()] == '"';
  };
  const auto members = _members_of(row);
  const auto found = std::find_if(members.begin(), members.end(), is_named);
  return found == members.end() ? nullptr : &*found;
}

Document FileTable::_value(const Member& member) const {
  Document value;
  PlainJsonReader(std::string_view(*_text).substr(member.value_begin)).value(value, ENTRY_DEPTH);
  return value;
}

Document FileTable::value(std::size_t row, std::string_view key) const {
  const Member* const member = _find_member(_rows[row], key);
  return member == nullptr ? Document() : _value(*member);
}

std::optional<std::string_view> FileTable::text(std::size_t row, std::string_view key) const noexcept {
  const Member* const member = _find_member(_rows[row], key);
  if (member == nullptr || (*_text)[member->value_begin] != '"') return std::nullopt;
  return _quoted(member->value_begin + 1);
}

Document FileTable::document(std::size_t row) const {
  Document entry = Document::object();
  auto& members = entry.get_ref<Document::object_t&>();
  members.reserve(_rows[row].members);
  for (const Member& member : _members_of(_rows[row])) members.emplace(_key(member), _value(member));
  return entry;
}

}  // namespace tidalcrest::sync
