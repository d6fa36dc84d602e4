#include "siblings/simulation/named_universe.hpp"

#include <algorithm>

#include "host/text.hpp"

namespace tidalcrest::sync {
namespace {

// C0, DEL, and C1 in its UTF-8 form.
bool has_control_character(std::string_view value) noexcept {
  for (std::size_t i = 0; i < value.size(); ++i) {
    const auto byte = static_cast<unsigned char>(value[i]);
    if (byte < 0x20 || byte == 0x7F) return true;
    if (byte == 0xC2 && i + 1 < value.size() && static_cast<unsigned char>(value[i + 1]) < 0xA0) return true;
  }
  return false;
}

}  // namespace

std::string _normalize_named_universe(const Document& value) {
  return value.is_null() ? std::string() : text::strip(text::str(value));
}

bool _is_unsafe_named_universe(std::string_view named_universe) noexcept {
  return named_universe.starts_with('.') || named_universe.find_first_of("/\\") != std::string_view::npos ||
         has_control_character(named_universe);
}

}  // namespace tidalcrest::sync
