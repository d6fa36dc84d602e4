#include "host/background_thread.hpp"

#include "host/log.hpp"
#include "host/threads.hpp"

namespace tidalcrest::sync {
namespace {

void run(const std::string& name, const std::function<void()>& body) {
  set_thread_name(name);
  try {
    body();
  } catch (const std::exception& failure) {
    log::emit(LogLevel::error, log::message("Thread %s failed: %s", name, failure.what()), nullptr,
              log::exception_text(failure));
  } catch (...) {
    log::emit(LogLevel::error, log::message("Thread %s failed", name));
  }
}

}  // namespace

BackgroundThread::BackgroundThread(const std::string& name, std::function<void()> body)
    : _thread([name, body = std::move(body), ended = _ended]() mutable {
        run(name, body);
        body = nullptr;
        ended->set();
      }),
      _id(_thread.get_id()) {}

BackgroundThread::~BackgroundThread() {
  if (!_thread.joinable()) return;
  if (is_alive()) {
    _thread.detach();
  } else {
    _thread.join();
  }
}

bool BackgroundThread::join_for(std::chrono::duration<double> patience) {
  if (_is_this_thread()) return false;
  if (!_ended->wait_for(patience)) return false;
  const MutexLock guard(_join_mutex);
  if (_thread.joinable()) _thread.join();
  return true;
}

}  // namespace tidalcrest::sync
