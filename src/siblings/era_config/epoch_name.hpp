#pragma once

namespace tidalcrest::sync {

/// The epochs that feature files are kept for; the value is the name of the epoch's directory.
enum class EpochName { SIGNAL_IS, STRATEGY_IS };

constexpr const char* epoch_value(EpochName epoch) noexcept {
  return epoch == EpochName::STRATEGY_IS ? "strategy_is" : "signal_is";
}

}  // namespace tidalcrest::sync
