#include "display.hpp"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <utility>

#include "units.hpp"

namespace tidalcrest::cli {
namespace {

constexpr auto REDRAW_INTERVAL = std::chrono::milliseconds(200);

std::size_t terminal_width() {
  winsize size{};
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return 80;
  return size.ws_col;
}

std::string string_member(const sync::Document& event, const char* key) {
  const auto& object = event.get_ref<const sync::Document::object_t&>();
  const auto member = object.find(key);
  return member != object.end() && member->second.is_string() ? member->second.get<std::string>()
                                                              : std::string();
}

}  // namespace

DisplayStyle style_for_standard_error(bool json) {
  if (json) return DisplayStyle::quiet;
  return isatty(STDERR_FILENO) == 1 ? DisplayStyle::live : DisplayStyle::plain;
}

Display::Display(DisplayStyle style) : _style(style) {
  if (_style == DisplayStyle::live) _redrawer = std::thread([this] { redraw_until_finished(); });
}

Display::~Display() { finish(); }

void Display::finish() {
  {
    const std::lock_guard lock(_mutex);
    _finished = true;
    clear_live_line();
  }
  _wake.notify_all();
  if (_redrawer.joinable()) _redrawer.join();
}

void Display::on_phase(const std::string& phase) {
  const std::lock_guard lock(_mutex);
  if (phase == _phase) return;
  _phase = phase;
  _waiting.clear();
  if (_style == DisplayStyle::plain) print_line(phase);
}

void Display::on_download_set(std::int64_t files, std::int64_t bytes) {
  const std::lock_guard lock(_mutex);
  _totals = {.files = files, .bytes = bytes};
  _download_started = Clock::now();
  if (_style == DisplayStyle::plain) {
    print_line(
        fmt::format("{} to fetch, {}", counted(files, "file"), bytes_text(static_cast<double>(bytes))));
  }
}

void Display::on_bytes(std::int64_t count) {
  const std::lock_guard lock(_mutex);
  _totals.bytes_done += count;
}

void Display::on_file_done(const std::string&) {
  const std::lock_guard lock(_mutex);
  ++_totals.files_done;
  _waiting.clear();
}

Display::Totals Display::totals() const {
  const std::lock_guard lock(_mutex);
  return _totals;
}

void Display::log(const sync::LogRecord& record) {
  const std::lock_guard lock(_mutex);
  const sync::Document* event = nullptr;
  if (record.extra != nullptr && record.extra->contains("tidalcrest_sync_event")) {
    event = &record.extra->at("tidalcrest_sync_event");
  }
  if (event != nullptr && string_member(*event, "event_type") == "sync_backoff_wait") {
    show_wait(*event);
  } else if (record.level >= sync::LogLevel::warning) {
    print_line(fmt::format("{}: {}", log_level_name(record.level), record.message));
  }
}

void Display::show_wait(const sync::Document& event) {
  const double seconds = event.value("wait_seconds", 0.0);
  const std::string file = string_member(event, "file_path");
  _waiting = fmt::format("{}{}", string_member(event, "reason"), file.empty() ? "" : " (" + file + ")");
  _wait_until =
      Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  if (_style == DisplayStyle::plain)
    print_line(fmt::format("waiting {}: {}", duration_text(seconds), _waiting));
}

void Display::say(const std::string& line) {
  const std::lock_guard lock(_mutex);
  print_line(line);
}

void Display::note(const std::string& line) {
  if (_style != DisplayStyle::quiet) say(line);
}

void Display::answer(const std::string& line) {
  const std::lock_guard lock(_mutex);
  clear_live_line();
  std::fflush(stderr);
  std::fputs((line + "\n").c_str(), stdout);
  std::fflush(stdout);
}

void Display::idle(std::string text) {
  const std::lock_guard lock(_mutex);
  _phase.clear();
  _waiting.clear();
  _idle_text = std::move(text);
}

void Display::print_line(const std::string& line) {
  clear_live_line();
  std::fputs((line + "\n").c_str(), stderr);
}

void Display::clear_live_line() {
  if (!_line_shown) return;
  std::fputs("\r\033[K", stderr);
  _line_shown = false;
}

std::string Display::live_line() const {
  const bool between_syncs = _phase.empty() || _phase == "checking";
  if (between_syncs && !_idle_text.empty()) return _idle_text + waiting_text();
  if (_phase != "downloading" || _totals.files == 0)
    return (_phase.empty() ? "starting" : _phase) + waiting_text();
  std::string line =
      fmt::format("{}/{} files  {} of {}", count_text(_totals.files_done), count_text(_totals.files),
                  bytes_text(static_cast<double>(std::max<std::int64_t>(_totals.bytes_done, 0))),
                  bytes_text(static_cast<double>(_totals.bytes)));
  const double elapsed = std::chrono::duration<double>(Clock::now() - _download_started).count();
  const double rate = elapsed > 0 ? static_cast<double>(_totals.bytes_done) / elapsed : 0;
  if (rate > 0) {
    const double left =
        static_cast<double>(std::max<std::int64_t>(_totals.bytes - _totals.bytes_done, 0)) / rate;
    line += fmt::format("  {}/s  {} left", bytes_text(rate), duration_text(left));
  }
  return line + waiting_text();
}

std::string Display::waiting_text() const {
  if (_waiting.empty() || Clock::now() >= _wait_until) return "";
  const double seconds = std::chrono::duration<double>(_wait_until - Clock::now()).count();
  return fmt::format("  waiting {}: {}", duration_text(seconds), _waiting);
}

void Display::redraw_until_finished() {
  std::unique_lock lock(_mutex);
  while (!_finished) {
    std::string line = live_line();
    if (line.size() >= terminal_width()) line.resize(terminal_width() - 1);
    if (!_line_shown || line != _shown_line) std::fputs(("\r\033[K" + line).c_str(), stderr);
    std::fflush(stderr);
    _line_shown = true;
    _shown_line = std::move(line);
    _wake.wait_for(lock, REDRAW_INTERVAL, [this] { return _finished; });
  }
  clear_live_line();
}

}  // namespace tidalcrest::cli
