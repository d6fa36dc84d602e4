#include "era/era_monitor.hpp"

#include <cmath>

#include "era/era_current.hpp"
#include "host/equality.hpp"
#include "host/integer.hpp"
#include "host/json.hpp"
#include "host/log.hpp"
#include "host/stoppable.hpp"
#include "host/text.hpp"
#include "manifest/identity.hpp"
#include "siblings/onboarding/agent_onboarding.hpp"
#include "siblings/security/transport.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

// What one poll was told.
struct EraReport {
  Document era_number = nullptr;
  Document state = "active";
  Document next_closing_at = nullptr;
};

EraReport report_of(const Document& era_config) {
  EraReport report;
  if (const Document* era_number = find_member(era_config, "era_number")) report.era_number = *era_number;
  if (const Document* state = find_member(era_config, "state")) report.state = *state;
  if (const Document* closing = find_member(era_config, "next_closing_at")) report.next_closing_at = *closing;
  return report;
}

void log_announcement(const EraReport& report) {
  log::info("Scheduled close announced at %s. Continue normal operation.", text::str(report.next_closing_at));
}

EraMonitor::Options checked(EraMonitor::Options options) {
  security::validate_bearer_transport_url(options.server_url);
  if (std::isnan(options.poll_interval)) {
    throw ValueError("era_poll_interval_s must be a number of seconds, not nan");
  }
  options.market_id = _coerce_agent_market_id(options.market_id);
  return options;
}

}  // namespace

class EraMonitor::Watch {
 public:
  explicit Watch(Options options)
      : _options(std::move(options)), _market_id(_options.market_id.get<std::int64_t>()) {}

  std::shared_ptr<const EraTarget> target() const { return _options.target.lock(); }
  void start_from(const EraTarget& target);
  void run(const Event& stop);
  bool poll_once();
  EraMemory memory() const {
    const MutexLock guard(_mutex);
    return _memory;
  }

 private:
  void _poll(const EraTarget& target);
  void _resume_after_cancelled_closing();
  void _close_era(const EraTarget& target, const EraReport& report);
  void _enter_new_era(const EraTarget& target, const EraReport& report);
  void _trigger(const EraTarget& target, const EraReport& report) const;
  static void _nudge(const Document& new_era_number, const Document& previous_era_number);
  void _mark_transition_failed(const char* context, const std::exception& failure);
  void _clear_transition_failed();

  const Options _options;
  const std::int64_t _market_id;
  mutable Mutex _mutex;                  // a leaf
  EraMemory _memory GUARDED_BY(_mutex);  // only the polling thread changes it
};

void EraMonitor::Watch::start_from(const EraTarget& target) {
  auto era_number = target.manifest_era_number();
  if (!era_number) return;
  const MutexLock guard(_mutex);
  _memory.last_known_era_number = *std::move(era_number);
}

void EraMonitor::Watch::run(const Event& stop) {
  while (poll_once()) {
    if (stop.wait_for(std::chrono::duration<double>(_options.poll_interval))) return;
  }
}

bool EraMonitor::Watch::poll_once() {
  const auto held = target();
  if (!held) return false;
  try {
    _poll(*held);
  } catch (const std::exception& failure) {
    log::warning("Era poll failed: %s", failure.what());
  }
  return true;
}

void EraMonitor::Watch::_poll(const EraTarget& target) {
  const std::string token = _options.get_token();
  const HttpResult answer = target.http_get(_market_era_current_url(_options.server_url, _market_id), token);
  if (answer.status != 200) return;
  const EraReport report = report_of(era_config_of(answer.body));
  const EraMemory known = memory();
  const Document& last_known = known.last_known_era_number;

  if (report.state == "active" && !report.next_closing_at.is_null()) log_announcement(report);
  if (known.in_closing && report.state == "active" && host_equal(report.era_number, last_known)) {
    _resume_after_cancelled_closing();
  } else if (report.state == "closing" && !known.in_closing) {
    _close_era(target, report);
  } else if (!report.era_number.is_null() && !last_known.is_null() &&
             !host_equal(report.era_number, last_known)) {
    _enter_new_era(target, report);
  }
}

void EraMonitor::Watch::_resume_after_cancelled_closing() {
  log::info("Era transition cancelled — resuming normal operation.");
  {
    const MutexLock guard(_mutex);
    _memory.in_closing = false;
  }
  if (!_options.restart_searches_fn) return;
  try {
    _options.restart_searches_fn();
  } catch (const std::exception& failure) {
    log::warning("Restart searches callback failed: %s", failure.what());
  }
}

// Acted on once: a failed one is not tried again while the server stays in it.
void EraMonitor::Watch::_close_era(const EraTarget& target, const EraReport& report) {
  {
    const MutexLock guard(_mutex);
    _memory.in_closing = true;
  }
  log_announcement(report);
  try {
    _trigger(target, report);
    _clear_transition_failed();
  } catch (const std::exception& failure) {
    _mark_transition_failed("closing", failure);
  }
}

// A failure leaves the known era as it is, so that the next poll tries again.
void EraMonitor::Watch::_enter_new_era(const EraTarget& target, const EraReport& report) {
  Document previous_era_number;
  {
    const MutexLock guard(_mutex);
    previous_era_number = _memory.last_known_era_number;
    _memory.in_closing = false;
  }
  try {
    _trigger(target, report);
  } catch (const std::exception& failure) {
    _mark_transition_failed("new era", failure);
    return;
  }
  {
    const MutexLock guard(_mutex);
    _memory.last_known_era_number = report.era_number;
  }
  _clear_transition_failed();
  _nudge(report.era_number, previous_era_number);
}

void EraMonitor::Watch::_trigger(const EraTarget& target, const EraReport& report) const {
  target.trigger_era_transition(report.era_number, _options.kill_searches_fn, _options.restart_searches_fn);
}

void EraMonitor::Watch::_nudge(const Document& new_era_number, const Document& previous_era_number) {
  try {
    agent_onboarding::update_nudge("era_change", to_int(new_era_number), to_int(previous_era_number));
  } catch (const std::exception& failure) {
    log::warning("update_nudge call failed: %s", failure.what());
  }
}

void EraMonitor::Watch::_mark_transition_failed(const char* context, const std::exception& failure) {
  {
    const MutexLock guard(_mutex);
    _memory.transition_failed = true;
    _memory.last_transition_error = fmt::format("{}: {}", context, failure.what());
  }
  log::warning("Trigger era transition (%s) failed: %s", context, failure.what());
}

void EraMonitor::Watch::_clear_transition_failed() {
  const MutexLock guard(_mutex);
  _memory.transition_failed = false;
  _memory.last_transition_error.reset();
}

EraMonitor::EraMonitor(Options options)
    : _stop_patience(options.stop_patience), _watch(std::make_shared<Watch>(checked(std::move(options)))) {}

EraMonitor::~EraMonitor() { stop(); }

void EraMonitor::start() {
  const MutexLock guard(_mutex);
  if (_started) throw StateError("EraThread already started");
  // A thread that outlived its stop keeps the event that was set for it.
  _stop_event = std::make_shared<Event>();
  const auto target = _watch->target();
  if (target) _watch->start_from(*target);
  const std::string data_dir = target ? target->data_dir : std::string();
  _thread = std::make_shared<BackgroundThread>("tc-era", [watch = _watch, stop = _stop_event, data_dir] {
    const ScopedBackoffContext context(context_stopped_by(stop, data_dir));
    watch->run(*stop);
  });
  _started = true;
}

void EraMonitor::stop() {
  std::shared_ptr<BackgroundThread> thread;
  {
    const MutexLock guard(_mutex);
    if (!_started) return;
    _stop_event->set();
    thread = _thread;
  }
  if (thread) thread->join_for(_stop_patience);
  const MutexLock guard(_mutex);
  if (_thread == thread) _started = false;
}

bool EraMonitor::is_alive() const {
  const MutexLock guard(_mutex);
  return _thread && _thread->is_alive();
}

EraMemory EraMonitor::memory() const { return _watch->memory(); }

bool EraMonitor::_poll_once() { return _watch->poll_once(); }

}  // namespace tidalcrest::sync
