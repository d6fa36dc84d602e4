#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace tidalcrest::sync {

/// Hears of a transition: "kill" (stop workers), "restart" (resume after it), "abort" (cancelled, resume).
/// `identity` is what two callbacks are equal by, and needed only to unregister one; `label` names the
/// callback in log lines.
struct EraCallback {
  std::function<void(const std::string& event_type, std::int64_t era_number)> call;
  const void* identity = nullptr;
  std::string label = "callback";
};

}  // namespace tidalcrest::sync
