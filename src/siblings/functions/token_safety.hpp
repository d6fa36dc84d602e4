#pragma once

#include <string_view>

namespace tidalcrest::sync {

/// Whether the whole name is a positional function id of the old distributions: `fn_` and digits, in any
/// letter case.
bool is_retired_public_function_token_name(std::string_view name) noexcept;

}  // namespace tidalcrest::sync
