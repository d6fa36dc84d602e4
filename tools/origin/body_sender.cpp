#include "origin/body_sender.hpp"

#include <algorithm>
#include <chrono>
#include <vector>

namespace tidalcrest::origin {
namespace {

constexpr std::size_t SEND_BUFFER_BYTES = 256 * 1024;

class BodySender {
 public:
  BodySender(const HttpResponse& response, const std::function<bool(std::string_view)>& write,
             const sync::Event& stopping)
      : _content(response.content), _how(response.transmission), _write(write), _stopping(stopping) {}

  AfterBody send() {
    const auto whole = _content.length;
    const auto end = std::min({whole, _how.cut_after.value_or(whole), _how.reset_after.value_or(whole)});
    if (!_send_with_pauses(end)) return AfterBody::CLOSE;
    if (_how.reset_after == end) return AfterBody::RESET;
    return _how.cut_after == end ? AfterBody::CLOSE : AfterBody::CONTINUE;
  }

 private:
  bool _send_with_pauses(std::uint64_t end) {
    std::vector<std::uint64_t> pauses;
    for (const auto& at : {_how.stall_after, _how.call_after}) {
      if (at && *at <= end) pauses.push_back(*at);
    }
    std::sort(pauses.begin(), pauses.end());
    std::uint64_t sent = 0;
    for (const auto pause : pauses) {
      if (!_send_span(sent, pause)) return false;
      sent = pause;
      if (_how.call_after == pause && _how.call) _how.call();
      if (_how.stall_after == pause && _stall()) return false;
    }
    return _send_span(sent, end);
  }

  /// True when the server stops.
  bool _stall() { return _stopping.wait_for(std::chrono::duration<double>(_how.stall_seconds)); }

  bool _send_span(std::uint64_t from, std::uint64_t to) {
    if (from == to) return true;
    if (_content.bytes && !_how.wrong_after) {
      return _write(std::string_view(*_content.bytes).substr(_content.offset + from, to - from));
    }
    std::vector<char> buffer(std::min<std::uint64_t>(SEND_BUFFER_BYTES, to - from));
    while (from < to) {
      const auto wanted = std::min<std::uint64_t>(buffer.size(), to - from);
      const auto count = _copy_out(from, buffer.data(), wanted);
      if (count == 0) return false;  // the file is shorter than it was
      if (_how.wrong_after) {
        const auto first = std::clamp<std::uint64_t>(*_how.wrong_after, from, from + count) - from;
        for (auto i = first; i < count; ++i) buffer[i] = static_cast<char>(~buffer[i]);
      }
      if (!_write({buffer.data(), count})) return false;
      from += count;
    }
    return true;
  }

  std::size_t _copy_out(std::uint64_t from, char* into, std::size_t count) const {
    if (_content.file) return _content.file->read_at(_content.offset + from, into, count);
    return _content.bytes->copy(into, count, _content.offset + from);
  }

  const Content& _content;
  const Transmission& _how;
  const std::function<bool(std::string_view)>& _write;
  const sync::Event& _stopping;
};

}  // namespace

AfterBody send_body(const HttpResponse& response, const std::function<bool(std::string_view)>& write,
                    const sync::Event& stopping) {
  return BodySender(response, write, stopping).send();
}

}  // namespace tidalcrest::origin
