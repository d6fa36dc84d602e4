#pragma once

#include <fmt/printf.h>

#include <exception>
#include <string>

#include "tidalcrest/sync/log.hpp"

namespace tidalcrest::sync::log {

/// Hands one record to the sink. Never throws.
void emit(LogLevel level, const std::string& message, const Document* extra = nullptr,
          const std::string& exception_text = {}) noexcept;

template <class... Args>
void debug(const char* format, const Args&... args) {
  emit(LogLevel::debug, fmt::sprintf(format, args...));
}
template <class... Args>
void info(const char* format, const Args&... args) {
  emit(LogLevel::info, fmt::sprintf(format, args...));
}
template <class... Args>
void warning(const char* format, const Args&... args) {
  emit(LogLevel::warning, fmt::sprintf(format, args...));
}

/// "{type}: {message}" of a failure, followed by its chain of causes: the text that stands for a traceback.
std::string exception_text(const std::exception& failure);

}  // namespace tidalcrest::sync::log
