#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "host/module_seam.hpp"

/// Hints to the people who run an agent.
namespace tidalcrest::sync::agent_onboarding {

/// The module as the sync module reaches it; the host can put its own in its place at run time.
class Module {
 public:
  virtual ~Module() = default;
  virtual void update_nudge(const std::string& occasion, std::int64_t new_era_number,
                            std::optional<std::int64_t> previous_era_number) = 0;
};

ModuleSeam<Module>& module_seam();

/// Reminds of a library update on an occasion such as "era_change". Callers catch and log what it throws.
void update_nudge(const std::string& occasion, std::int64_t new_era_number,
                  std::optional<std::int64_t> previous_era_number);

}  // namespace tidalcrest::sync::agent_onboarding
