#pragma once

#include <utility>

namespace tidalcrest::sync {

/// Runs a piece of cleanup on every exit of a scope. The cleanup must not throw.
template <class Cleanup>
class [[nodiscard]] ScopeExit {
 public:
  explicit ScopeExit(Cleanup cleanup) : _cleanup(std::move(cleanup)) {}
  ScopeExit(const ScopeExit&) = delete;
  ScopeExit& operator=(const ScopeExit&) = delete;
  ~ScopeExit() { _cleanup(); }

 private:
  Cleanup _cleanup;
};

}  // namespace tidalcrest::sync
