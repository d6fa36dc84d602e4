#pragma once

#include <tsl/ordered_map.h>

#include <cstddef>
#include <functional>
#include <initializer_list>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

namespace tidalcrest::sync {

/// Object type of `Document`: keeps insertion order and finds a key in constant time.
///
/// The JSON library's own ordered type searches linearly, so a manifest of 100,000 files would take
/// quadratic time. This adapts an insertion-ordered hash map to the interface that the library asks
/// of an object type. Iterators are plain pointers into contiguous storage; any insertion or erasure
/// invalidates them. Not safe for concurrent modification.
template <class Key, class T, class IgnoredLess = std::less<Key>,
          class Allocator = std::allocator<std::pair<const Key, T>>>
class IndexedObject {
 public:
  using key_type = Key;
  using mapped_type = T;
  using key_compare = std::equal_to<Key>;
  using value_type = std::pair<Key, T>;
  using size_type = std::size_t;
  using difference_type = std::ptrdiff_t;
  using allocator_type = Allocator;
  using reference = value_type&;
  using const_reference = const value_type&;
  using iterator = value_type*;
  using const_iterator = const value_type*;

  IndexedObject() = default;
  explicit IndexedObject(const Allocator&) {}
  template <class It>
  IndexedObject(It first, It last, const Allocator& = Allocator()) {
    for (; first != last; ++first) emplace(first->first, first->second);
  }
  IndexedObject(std::initializer_list<value_type> items, const Allocator& = Allocator())
      : IndexedObject(items.begin(), items.end()) {}

  iterator begin() noexcept { return const_cast<iterator>(std::as_const(*this).begin()); }
  iterator end() noexcept { return begin() + size(); }
  const_iterator begin() const noexcept { return _items.values_container().data(); }
  const_iterator end() const noexcept { return begin() + size(); }
  const_iterator cbegin() const noexcept { return begin(); }
  const_iterator cend() const noexcept { return end(); }

  bool empty() const noexcept { return _items.empty(); }
  size_type size() const noexcept { return _items.size(); }
  size_type max_size() const noexcept { return _items.max_size(); }
  void clear() noexcept { _items.clear(); }
  void reserve(size_type count) { _items.reserve(count); }

  template <class K, class... Args>
  std::pair<iterator, bool> emplace(K&& key, Args&&... args) {
    auto [at, inserted] = _items.try_emplace(Key(std::forward<K>(key)), std::forward<Args>(args)...);
    return {begin() + (at - _items.begin()), inserted};
  }
  std::pair<iterator, bool> insert(value_type item) {
    return emplace(std::move(item.first), std::move(item.second));
  }
  template <class It>
  void insert(It first, It last) {
    for (; first != last; ++first) emplace(first->first, first->second);
  }

  template <class K>
  T& operator[](K&& key) {
    return emplace(std::forward<K>(key)).first->second;
  }
  T& at(const Key& key) { return _items.at(key); }
  const T& at(const Key& key) const { return _items.at(key); }

  iterator find(const Key& key) { return begin() + (_items.find(key) - _items.begin()); }
  const_iterator find(const Key& key) const { return begin() + (_items.find(key) - _items.begin()); }
  size_type count(const Key& key) const { return _items.count(key); }

  size_type erase(const Key& key) { return _items.erase(key); }
  iterator erase(iterator at) {
    const auto offset = at - begin();
    _items.erase(_items.begin() + offset);
    return begin() + offset;
  }
  iterator erase(iterator first, iterator last) {
    const auto offset = first - begin();
    const auto count = last - first;
    _items.erase(_items.begin() + offset, _items.begin() + offset + count);
    return begin() + offset;
  }

  friend bool operator==(const IndexedObject& a, const IndexedObject& b) {
    if (a.size() != b.size()) return false;
    for (const auto& [key, value] : a) {
      const auto other = b.find(key);
      if (other == b.end() || !(other->second == value)) return false;
    }
    return true;
  }
  friend bool operator<(const IndexedObject& a, const IndexedObject& b) { return a.size() < b.size(); }

 private:
  using Storage = std::vector<std::pair<Key, T>>;
  tsl::ordered_map<Key, T, std::hash<Key>, std::equal_to<Key>, std::allocator<std::pair<Key, T>>, Storage>
      _items;
};

/// One JSON value. Objects keep the order of their keys and find a key in constant time.
using Document = nlohmann::basic_json<IndexedObject>;

}  // namespace tidalcrest::sync
