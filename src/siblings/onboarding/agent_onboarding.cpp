#include "siblings/onboarding/agent_onboarding.hpp"

#include "host/log.hpp"
#include "host/never_destroyed.hpp"

namespace tidalcrest::sync::agent_onboarding {
namespace {

class BuiltIn final : public Module {
 public:
  void update_nudge(const std::string& occasion, std::int64_t new_era_number,
                    std::optional<std::int64_t> previous_era_number) override {
    const std::string previous = previous_era_number ? std::to_string(*previous_era_number) : "None";
    log::info("Library update check suggested (%s): era %s -> %d", occasion, previous, new_era_number);
  }
};

}  // namespace

ModuleSeam<Module>& module_seam() {
  static auto& seam = never_destroyed<ModuleSeam<Module>>(std::make_shared<BuiltIn>());
  return seam;
}

void update_nudge(const std::string& occasion, std::int64_t new_era_number,
                  std::optional<std::int64_t> previous_era_number) {
  module_seam().current()->update_nudge(occasion, new_era_number, previous_era_number);
}

}  // namespace tidalcrest::sync::agent_onboarding
