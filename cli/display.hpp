#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "tidalcrest/sync/log.hpp"
#include "tidalcrest/sync/progress.hpp"

namespace tidalcrest::cli {

enum class DisplayStyle {
  live,   ///< one line on the terminal, redrawn
  plain,  ///< a line per phase and per wait
  quiet,  ///< nothing but warnings
};

/// Shows how a running sync gets on, on standard error: files, bytes, rate, time left, what is waited for and
/// why. Also the log sink of the command line, so that a warning never tears the live line. Thread-safe.
class Display : public sync::SyncProgress {
 public:
  explicit Display(DisplayStyle style);
  ~Display() override;

  void on_phase(const std::string& phase) override;
  void on_download_set(std::int64_t files, std::int64_t bytes) override;
  void on_bytes(std::int64_t count) override;
  void on_file_done(const std::string& file_path) override;

  /// Takes one line of the logger; warnings and errors are shown, wait events become "what is waited for".
  void log(const sync::LogRecord& record);
  /// Prints a line of its own, above the live line.
  void say(const std::string& line);
  /// The same, where people watch: nothing in quiet style.
  void note(const std::string& line);
  /// Prints a line on standard output, at once.
  void answer(const std::string& line);
  /// What the live line shows between two syncs.
  void idle(std::string text);
  bool is_live() const noexcept { return _style == DisplayStyle::live; }
  /// Ends the live line.
  void finish();

  struct Totals {
    std::int64_t files_done = 0;
    std::int64_t files = 0;
    std::int64_t bytes_done = 0;
    std::int64_t bytes = 0;
  };
  Totals totals() const;

 private:
  using Clock = std::chrono::steady_clock;
  void redraw_until_finished();
  std::string live_line() const;
  std::string waiting_text() const;
  void show_wait(const sync::Document& event);
  void print_line(const std::string& line);
  void clear_live_line();

  const DisplayStyle _style;
  mutable std::mutex _mutex;  // guards everything below; held while one line is written
  std::condition_variable _wake;
  bool _finished = false;
  bool _line_shown = false;
  std::string _shown_line;
  std::string _phase;
  std::string _idle_text;
  std::string _waiting;  // empty when nothing is waited for
  Clock::time_point _wait_until;
  Clock::time_point _download_started;
  Totals _totals;
  std::thread _redrawer;
};

/// The style for this standard error: live on a terminal, plain otherwise.
DisplayStyle style_for_standard_error(bool json);

}  // namespace tidalcrest::cli
