#pragma once

#include <exception>
#include <functional>
#include <string>

#include "tidalcrest/sync/document.hpp"

namespace tidalcrest::sync {

enum class LogLevel { debug, info, warning, error };

/// The word of a level: "debug", "info", "warning" or "error".
const char* log_level_name(LogLevel level) noexcept;

/// One line of the logger named "tidalcrest.sync".
struct LogRecord {
  LogLevel level;
  std::string message;              ///< already formatted
  const Document* extra = nullptr;  ///< structured attachment, valid during the call only
  std::string exception_text;       ///< "{type}: {message}" and its causes; empty when none was asked for
  std::exception_ptr exception;     ///< what that text is about; null when none was asked for
};

using LogSink = std::function<void(const LogRecord&)>;

/// Replaces the sink of the process; an empty function restores the default, which writes one line per
/// record of level info or above to standard error. Thread-safe. The sink may be called on any thread, also
/// under the locks of a sync, so it must not wait for a manager; what it throws is dropped.
void set_log_sink(LogSink sink);

/// Lowest level that the default sink writes (info at start). Thread-safe.
void set_default_log_level(LogLevel level);

}  // namespace tidalcrest::sync
