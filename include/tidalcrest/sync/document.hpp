#pragma once

#include <tsl/ordered_map.h>

#include <cstddef>
#include <functional>
#include <initializer_list>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

namespace tidalcrest::sync {

/// Object type of `Document`: keeps insertion order and finds a key in constant time.
///
/// The JSON library's own ordered type searches linearly, so a manifest of 100,000 files would take
/// quadratic time. This adapts an insertion-ordered hash map to the interface that the library asks
/// of an object type. A few members lie in a plain list: a manifest has one small object for each file, and
/// an index would be the larger part of it. Iterators are plain pointers into contiguous storage; any
/// insertion or erasure invalidates them. Not safe for concurrent modification.
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
  IndexedObject(const IndexedObject& other)
      : _few(other._few), _many(other._many ? std::make_unique<Many>(*other._many) : nullptr) {}
  IndexedObject(IndexedObject&&) noexcept = default;
  IndexedObject& operator=(IndexedObject other) noexcept {
    _few.swap(other._few);
    _many.swap(other._many);
    return *this;
  }
  ~IndexedObject() = default;

  iterator begin() noexcept { return const_cast<iterator>(std::as_const(*this).begin()); }
  iterator end() noexcept { return begin() + size(); }
  const_iterator begin() const noexcept { return _items().data(); }
  const_iterator end() const noexcept { return begin() + size(); }
  const_iterator cbegin() const noexcept { return begin(); }
  const_iterator cend() const noexcept { return end(); }

  bool empty() const noexcept { return size() == 0; }
  size_type size() const noexcept { return _items().size(); }
  size_type max_size() const noexcept { return _few.max_size(); }
  void clear() noexcept {
    _few.clear();
    _many.reset();
  }
  void reserve(size_type count) {
    if (count > FEW) _index();
    if (_many) {
      _many->reserve(count);
    } else {
      _few.reserve(count);
    }
  }

  template <class K, class... Args>
  std::pair<iterator, bool> emplace(K&& key, Args&&... args) {
    if (!_many && _few.size() == FEW) _index();
    if (_many) {
      auto [at, inserted] = _many->try_emplace(Key(std::forward<K>(key)), std::forward<Args>(args)...);
      return {begin() + (at - _many->begin()), inserted};
    }
    const iterator known = find(key);
    if (known != end()) return {known, false};
    _few.emplace_back(std::piecewise_construct, std::forward_as_tuple(std::forward<K>(key)),
                      std::forward_as_tuple(std::forward<Args>(args)...));
    return {end() - 1, true};
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
  T& at(const Key& key) { return const_cast<T&>(std::as_const(*this).at(key)); }
  const T& at(const Key& key) const {
    const const_iterator item = find(key);
    if (item == end()) throw std::out_of_range("no such key");
    return item->second;
  }

  /// Finds by anything that compares as the key does, so that a look needs no key of its own.
  template <class K>
  iterator find(const K& key) {
    return const_cast<iterator>(std::as_const(*this).find(key));
  }
  template <class K>
  const_iterator find(const K& key) const {
    if (_many) return begin() + (_many->find(std::string_view(key)) - _many->begin());
    const_iterator item = begin();
    while (item != end() && item->first != key) ++item;
    return item;
  }
  template <class K>
  size_type count(const K& key) const {
    return find(key) == end() ? 0 : 1;
  }

  size_type erase(const Key& key) {
    const iterator item = find(key);
    if (item == end()) return 0;
    erase(item);
    return 1;
  }
  iterator erase(iterator at) { return erase(at, at + 1); }
  iterator erase(iterator first, iterator last) {
    const auto offset = first - begin();
    const auto past = last - begin();
    if (_many) {
      // One by one: the map's own erasure of a range can leave its index wrong.
      for (auto behind = past; behind > offset; --behind) _many->erase(_many->begin() + (behind - 1));
    } else {
      _few.erase(_few.begin() + offset, _few.begin() + past);
    }
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
  struct Hash {
    using is_transparent = void;
    std::size_t operator()(std::string_view key) const noexcept { return std::hash<std::string_view>()(key); }
  };
  using Items = std::vector<value_type>;
  using Many = tsl::ordered_map<Key, T, Hash, std::equal_to<>, std::allocator<value_type>, Items>;
  static constexpr size_type FEW = 8;  // members that are compared faster than hashed

  const Items& _items() const noexcept { return _many ? _many->values_container() : _few; }

  void _index() {
    if (_many) return;
    auto many = std::make_unique<Many>();
    many->reserve(2 * FEW);
    for (value_type& item : _few) many->insert(std::move(item));
    _few = Items();
    _many = std::move(many);
  }

  Items _few;                   // all members until there are too many for it, then none
  std::unique_ptr<Many> _many;  // null until then
};

/// One JSON value. Objects keep the order of their keys and find a key in constant time.
using Document = nlohmann::basic_json<IndexedObject>;

}  // namespace tidalcrest::sync
