#pragma once

#include <cstddef>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "tidalcrest/sync/document.hpp"

namespace tidalcrest::sync {

class FileTable;

/// What a manifest says of one file: a view that lives as long as what it was taken from, and is cheap to
/// copy. Most manifests are kept as their text and a table of the entries, which is a seventh of what a
/// document of them would take; the others are kept as documents. An entry of either kind reads the same.
class FileEntry {
 public:
  /// No entry: an object without members.
  FileEntry() = default;
  /// A view of a document, which may hold any value; null stands for no entry.
  FileEntry(const Document* value) noexcept : _value(value) {}
  FileEntry(const Document& value) noexcept : _value(&value) {}
  FileEntry(const Document&& value) = delete;
  FileEntry(const FileTable& table, std::size_t row) noexcept : _table(&table), _row(row) {}
  FileEntry(const FileTable&& table, std::size_t row) = delete;

  bool is_none() const noexcept { return _value == nullptr && _table == nullptr; }
  bool is_null() const noexcept { return _value != nullptr && _value->is_null(); }
  bool is_object() const noexcept { return _value == nullptr || _value->is_object(); }
  /// Whether there are no members.
  bool empty() const noexcept;
  /// The member; null when it is missing.
  Document value(std::string_view key) const;
  /// The member when it is a string.
  std::optional<std::string_view> text(std::string_view key) const noexcept;
  /// The text form of the member; empty when the host takes it for false, as what is missing.
  std::string plain_text(std::string_view key) const;
  Document document() const;

 private:
  const Document* _value = nullptr;
  const FileTable* _table = nullptr;  // null when the entry is a document, or none
  std::size_t _row = 0;
};

/// The `files` of a manifest in its order: path and entry. Refers to the manifest, and its iterators to it.
class ManifestEntries {
 public:
  using value_type = std::pair<std::string_view, FileEntry>;

  /// Reads as one of pairs, which are made when they are asked for.
  class const_iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = ManifestEntries::value_type;
    using difference_type = std::ptrdiff_t;
    using pointer = const value_type*;
    using reference = value_type;

    const_iterator() = default;
    const_iterator(const ManifestEntries* entries, std::size_t index) : _entries(entries), _index(index) {}
    value_type operator*() const { return (*_entries)[_index]; }
    const_iterator& operator++() {
      ++_index;
      return *this;
    }
    const_iterator operator++(int) { return {_entries, _index++}; }
    bool operator==(const const_iterator& other) const noexcept { return _index == other._index; }

   private:
    const ManifestEntries* _entries = nullptr;
    std::size_t _index = 0;
  };

  ManifestEntries() = default;
  /// None where `files` is no object.
  explicit ManifestEntries(const Document& files) noexcept
      : _files(files.is_object() ? &files.get_ref<const Document::object_t&>() : nullptr) {}
  explicit ManifestEntries(const Document&& files) = delete;
  explicit ManifestEntries(const FileTable& table) noexcept : _table(&table) {}
  explicit ManifestEntries(const FileTable&& table) = delete;

  std::size_t size() const noexcept;
  bool empty() const noexcept { return size() == 0; }
  value_type operator[](std::size_t index) const noexcept;
  const_iterator begin() const noexcept { return {this, 0}; }
  const_iterator end() const noexcept { return {this, size()}; }
  /// Takes constant time.
  std::optional<FileEntry> find(std::string_view path) const noexcept;
  bool contains(std::string_view path) const noexcept { return find(path).has_value(); }

 private:
  const Document::object_t* _files = nullptr;
  const FileTable* _table = nullptr;  // at most one of the two
};

}  // namespace tidalcrest::sync
