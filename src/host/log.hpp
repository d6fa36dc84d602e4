#pragma once

#include <fmt/printf.h>

#include <exception>
#include <string>

#include "tidalcrest/sync/log.hpp"

namespace tidalcrest::sync::log {

/// Hands one record to the sink. Never throws. With an `exception_text` the record tells of the exception
/// that is being handled.
void emit(LogLevel level, const std::string& message, const Document* extra = nullptr,
          const std::string& exception_text = {}) noexcept;

/// A printf-style message. A format that does not fit its arguments stands as it is: a record must not fail
/// the operation that it speaks of.
template <class... Args>
std::string message(const char* format, const Args&... args) {
  try {
    return fmt::sprintf(format, args...);
  } catch (const fmt::format_error&) {
    return format;
  }
}

template <class... Args>
void debug(const char* format, const Args&... args) {
  emit(LogLevel::debug, message(format, args...));
}
template <class... Args>
void info(const char* format, const Args&... args) {
  emit(LogLevel::info, message(format, args...));
}
template <class... Args>
void warning(const char* format, const Args&... args) {
  emit(LogLevel::warning, message(format, args...));
}

/// "{type}: {message}" of a failure, followed by its chain of causes: the text that stands for a traceback.
std::string exception_text(const std::exception& failure);

}  // namespace tidalcrest::sync::log
