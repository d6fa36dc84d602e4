#pragma once

#include <functional>
#include <memory>

#include "host/mutex.hpp"

namespace tidalcrest::sync {

/// The place of one sibling module that the host may replace at run time.
///
/// `current()` is asked at the moment of use, never kept: a resolver that the host installed comes first (the
/// host's loaded-module table), then an installed replacement, then the built-in module. Thread-safe;
/// the resolver runs without the lock.
template <class Module>
class ModuleSeam {
 public:
  explicit ModuleSeam(std::shared_ptr<Module> built_in)
      : _installed(built_in), _built_in(std::move(built_in)) {}

  std::shared_ptr<Module> current() const {
    std::function<std::shared_ptr<Module>()> resolver;
    std::shared_ptr<Module> installed;
    {
      const MutexLock lock(_mutex);
      resolver = _resolver;
      installed = _installed;
    }
    if (resolver) {
      if (auto found = resolver()) return found;
    }
    return installed;
  }

  /// Replaces the module; null restores the built-in one.
  void install(std::shared_ptr<Module> module) {
    const MutexLock lock(_mutex);
    _installed = module ? std::move(module) : _built_in;
  }

  /// Asked first at every use; gives null when the host has no replacement. Empty removes it.
  void set_resolver(std::function<std::shared_ptr<Module>()> resolver) {
    const MutexLock lock(_mutex);
    _resolver = std::move(resolver);
  }

 private:
  mutable Mutex _mutex;
  std::function<std::shared_ptr<Module>()> _resolver GUARDED_BY(_mutex);
  std::shared_ptr<Module> _installed GUARDED_BY(_mutex);
  const std::shared_ptr<Module> _built_in;
};

}  // namespace tidalcrest::sync
