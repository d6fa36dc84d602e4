#include "host/failures.hpp"

#include <fmt/format.h>

#include <cerrno>
#include <new>
#include <system_error>

namespace tidalcrest::sync {

namespace {

std::string os_text(int error_number, const std::string& what) {
  return fmt::format("{}: {}", what, std::generic_category().message(error_number));
}

}  // namespace

std::string failure_type_name(const std::exception& failure) {
  if (const auto* known = dynamic_cast<const Failure*>(&failure)) return known->type_name();
  if (dynamic_cast<const std::bad_alloc*>(&failure) != nullptr) return "MemoryError";
  if (dynamic_cast<const std::system_error*>(&failure) != nullptr) return "OSError";
  if (dynamic_cast<const std::invalid_argument*>(&failure) != nullptr) return "ValueError";
  return "RuntimeError";
}

void throw_os_error(int error_number, const std::string& what) {
  if (error_number == ENOENT) throw FileNotFoundError(os_text(error_number, what), error_number);
  throw OSError(os_text(error_number, what), error_number);
}

}  // namespace tidalcrest::sync
