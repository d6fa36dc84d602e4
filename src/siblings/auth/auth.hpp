#pragma once

#include <cstdint>
#include <optional>

#include "host/module_seam.hpp"

/// Authentication, as far as the sync module meets it. `AuthError` stands with the other failures.
namespace tidalcrest::sync::auth {

/// The module as the sync module reaches it; the host can put its own in its place at run time.
class Module {
 public:
  virtual ~Module() = default;
  /// Told once per advance to another era, after its publication. Callers catch and log what it throws.
  virtual void notify_era_change(std::int64_t era_number) = 0;
};

ModuleSeam<Module>& module_seam();

void notify_era_change(std::int64_t era_number);

/// What the built-in module was last told in this process.
std::optional<std::int64_t> last_notified_era_number();

}  // namespace tidalcrest::sync::auth
