#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/plain_json_reader.hpp"
#include "tidalcrest/sync/document.hpp"

namespace tidalcrest::sync {

/// The entries of a manifest's `files` as places in its text: 12 bytes a file, 8 a member and some 12 for the
/// index. A manifest has one entry for each file, and as documents these are most of what a process holds.
class FileTable {
 public:
  explicit FileTable(std::shared_ptr<const std::string> text) : _text(std::move(text)) {}

  /// Reads an object of plain entries, on whose brace the reader stands; it reads this table's text. False
  /// for anything that is not plain, a member that is no object and an equal key.
  bool read(PlainJsonReader& reader);

  std::size_t size() const noexcept { return _rows.size(); }
  std::string_view path(std::size_t row) const noexcept {
    return std::string_view(*_text).substr(_rows[row].path_begin, _rows[row].path_size);
  }
  std::optional<std::size_t> find(std::string_view path) const noexcept;

  std::size_t members_of(std::size_t row) const noexcept { return _rows[row].members; }
  Document value(std::size_t row, std::string_view key) const;
  std::optional<std::string_view> text(std::size_t row, std::string_view key) const noexcept;
  Document document(std::size_t row) const;

  /// The rows that `is_unwanted(row)` does not hold for.
  template <class Predicate>
  FileTable without(Predicate is_unwanted) const {
    FileTable kept(_text);
    kept._members = _members;
    kept._rows.reserve(size());
    for (std::size_t row = 0; row < size(); ++row) {
      if (!is_unwanted(row)) kept._rows.push_back(_rows[row]);
    }
    kept._index();
    return kept;
  }

 private:
  using Place = std::uint32_t;  // a manifest has at most 256 MiB
  struct Row {
    Place path_begin;
    Place first_member;
    std::uint16_t path_size;
    std::uint16_t members;
  };
  struct Member {
    Place key_begin;
    Place value_begin;
  };
  static constexpr Place FREE = UINT32_MAX;
  static constexpr std::size_t MEMBERS_LIMIT = 32;  // of one entry: equal keys are looked for one by one
  static constexpr std::size_t PATH_BYTES_LIMIT = UINT16_MAX;  // no valid path is as long
  static constexpr int ENTRY_DEPTH = 3;                        // the root, its `files`, the entry

  bool _read_entry(PlainJsonReader& reader, std::string_view path);
  bool _index();
  std::size_t _slot_of(std::string_view path) const noexcept;
  std::span<const Member> _members_of(const Row& row) const noexcept {
    return {_members->data() + row.first_member, row.members};
  }
  std::string_view _key(const Member& member) const noexcept { return _quoted(member.key_begin); }
  std::string_view _quoted(std::size_t begin) const noexcept {
    return std::string_view(*_text).substr(begin, _text->find('"', begin) - begin);
  }
  const Member* _find_member(const Row& row, std::string_view key) const noexcept;
  Document _value(const Member& member) const;
  Place _place(std::string_view part) const noexcept {
    return static_cast<Place>(part.data() - _text->data());
  }

  std::shared_ptr<const std::string> _text;
  std::vector<Row> _rows;
  std::shared_ptr<std::vector<Member>> _members =
      std::make_shared<std::vector<Member>>();  // shared by tables of one text
  std::vector<Place> _slots;  // open addressing: a row, or `FREE`; a power of two, at most half full
};

}  // namespace tidalcrest::sync
