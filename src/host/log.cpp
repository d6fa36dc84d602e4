#include "host/log.hpp"

#include <atomic>
#include <cstdio>

#include "host/failures.hpp"
#include "host/mutex.hpp"
#include "host/never_destroyed.hpp"

namespace tidalcrest::sync {
namespace {

std::atomic<LogLevel> default_level{LogLevel::info};

void write_to_standard_error(const LogRecord& record) {
  if (record.level < default_level.load()) return;
  std::string line = fmt::format("{}: tidalcrest.sync: {}\n", log_level_name(record.level), record.message);
  if (!record.exception_text.empty()) line += record.exception_text + "\n";
  std::fwrite(line.data(), 1, line.size(), stderr);
}

struct Sink {
  Mutex mutex;  // never held while a sink runs
  std::shared_ptr<const LogSink> current GUARDED_BY(mutex) =
      std::make_shared<const LogSink>(write_to_standard_error);
};

Sink& sink() {
  static Sink& holder = never_destroyed<Sink>();
  return holder;
}

std::shared_ptr<const LogSink> current_sink() {
  const MutexLock lock(sink().mutex);
  return sink().current;
}

}  // namespace

const char* log_level_name(LogLevel level) noexcept {
  switch (level) {
    case LogLevel::debug:
      return "debug";
    case LogLevel::info:
      return "info";
    case LogLevel::warning:
      return "warning";
    case LogLevel::error:
      return "error";
  }
  return "error";
}

void set_log_sink(LogSink replacement) {
  if (!replacement) replacement = write_to_standard_error;
  auto fresh = std::make_shared<const LogSink>(std::move(replacement));
  const MutexLock lock(sink().mutex);
  sink().current.swap(fresh);  // what it replaces goes after the lock is free
}

void set_default_log_level(LogLevel level) { default_level = level; }

namespace log {

void emit(LogLevel level, const std::string& message, const Document* extra,
          const std::string& exception_text) noexcept {
  try {
    const auto exception = exception_text.empty() ? nullptr : std::current_exception();
    (*current_sink())(LogRecord{level, message, extra, exception_text, exception});
  } catch (...) {
    // A slow or failing sink must not fail the operation that speaks of itself.
  }
}

std::string exception_text(const std::exception& failure) {
  std::string text = fmt::format("{}: {}", failure_type_name(failure), failure.what());
  const auto* known = dynamic_cast<const Failure*>(&failure);
  if (known == nullptr || !known->cause()) return text;
  try {
    std::rethrow_exception(known->cause());
  } catch (const std::exception& cause) {
    return text + "\n  caused by " + exception_text(cause);
  } catch (...) {
    return text;
  }
}

}  // namespace log
}  // namespace tidalcrest::sync
