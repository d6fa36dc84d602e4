#pragma once

#include <string_view>

namespace tidalcrest::sync {

/// The two kinds of found files, whose local paths a sync reports to its caller.
inline constexpr const char* FOUND_SIGNAL_PNL_KIND = "found_signal_is_pnl";
inline constexpr const char* FOUND_STRATEGY_EPOCH_PNL_KIND = "found_strategy_is_epoch_pnl";

inline bool is_found_pnl_file_kind(std::string_view kind) noexcept {
  return kind == FOUND_SIGNAL_PNL_KIND || kind == FOUND_STRATEGY_EPOCH_PNL_KIND;
}

}  // namespace tidalcrest::sync
