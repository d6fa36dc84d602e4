#pragma once

#include <algorithm>
#include <cstddef>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace tidalcrest::sync {

/// An immutable list of relative paths. Made of a vector, and read as one, without a word.
///
/// Copies share one memory: the ten thousand paths of a plan go from the state on disk through the selection
/// to the result, and are the same all the way. Reading is thread-safe.
class PathList {
 public:
  using value_type = std::string;
  using size_type = std::size_t;
  using const_reference = const std::string&;
  using const_iterator = std::vector<std::string>::const_iterator;
  using iterator = const_iterator;

  PathList() = default;
  PathList(std::vector<std::string> paths)
      : _paths(std::make_shared<const std::vector<std::string>>(std::move(paths))) {}
  PathList(std::initializer_list<std::string> paths) : PathList(std::vector<std::string>(paths)) {}
  template <class It>
  PathList(It first, It last) : PathList(std::vector<std::string>(first, last)) {}

  operator const std::vector<std::string>&() const noexcept {
    static const auto& none = *new std::vector<std::string>();  // as long as any thread lives
    return _paths ? *_paths : none;
  }
  const_iterator begin() const noexcept { return _list().begin(); }
  const_iterator end() const noexcept { return _list().end(); }
  bool empty() const noexcept { return _list().empty(); }
  size_type size() const noexcept { return _list().size(); }
  const std::string& operator[](size_type index) const { return _list()[index]; }
  const std::string& front() const { return _list().front(); }

  /// The paths that `is_unwanted` does not hold for; the list itself where that is every one.
  template <class Predicate>
  PathList without(Predicate is_unwanted) const {
    if (std::none_of(begin(), end(), is_unwanted)) return *this;
    std::vector<std::string> kept;
    std::remove_copy_if(begin(), end(), std::back_inserter(kept), is_unwanted);
    return kept;
  }

  friend bool operator==(const PathList& a, const PathList& b) noexcept {
    return a._paths == b._paths || a._list() == b._list();
  }

 private:
  const std::vector<std::string>& _list() const noexcept { return *this; }

  std::shared_ptr<const std::vector<std::string>> _paths;  // null for an empty list
};

}  // namespace tidalcrest::sync
