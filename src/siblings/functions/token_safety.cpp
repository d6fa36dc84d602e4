#include "siblings/functions/token_safety.hpp"

namespace tidalcrest::sync {

bool is_retired_public_function_token_name(std::string_view name) noexcept {
  return name.size() > 3 && (name[0] == 'f' || name[0] == 'F') && (name[1] == 'n' || name[1] == 'N') &&
         name[2] == '_' && name.find_first_not_of("0123456789", 3) == std::string_view::npos;
}

}  // namespace tidalcrest::sync
