#pragma once

#include <functional>
#include <memory>
#include <string>

#include "tidalcrest/sync/records.hpp"

namespace tidalcrest::sync {

class ActiveCohortViews;  // internal

/// Holds the writer lock order while a consumer reads one exact cohort: this manager's sync lock, the shared
/// distribution lock, and a lock on the generation itself. Publication waits, here and in every other
/// process, so keep it short; for the paths alone take `active_cohort_snapshot()`. A view, `sync` or `repair`
/// on the same thread while it is held throws `StateError`: it would wait for itself. May outlive its
/// manager: it keeps alive what it holds. Move-only; to be destroyed on the thread that made it.
class ActiveCohortPin {
 public:
  ActiveCohortPin(ActiveCohortPin&&) noexcept;
  ActiveCohortPin& operator=(ActiveCohortPin&&) noexcept;
  /// Lets go without the readback.
  ~ActiveCohortPin();

  const VerifiedActiveCohortSnapshot& snapshot() const noexcept;
  /// Ends the scope normally: throws `OSError` when the root was swapped or replaced during the read. Lets go
  /// of everything either way. Idempotent.
  void release();

 private:
  friend class ActiveCohortViews;
  struct Held;
  explicit ActiveCohortPin(std::unique_ptr<Held> held) noexcept;
  std::unique_ptr<Held> _held;  // null once released or moved from
};

}  // namespace tidalcrest::sync
