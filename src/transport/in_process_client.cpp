#include "transport/in_process_client.hpp"

#include <curl/curl.h>
#include <unistd.h>

#include <algorithm>
#include <new>
#include <utility>
#include <vector>

#include "host/mutex.hpp"
#include "transport/transfer.hpp"
#include "transport/url_parts.hpp"

namespace tidalcrest::sync {
namespace {

constexpr int REDIRECT_LIMIT = 10;
constexpr std::size_t IDLE_HANDLE_LIMIT = 64;

void initialise_library_once() {
  static const bool initialised = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
  if (!initialised) throw OSError("the HTTP library could not be initialised");
}

// A line break in a header would smuggle in headers of its own. The value stays out of the message: it may be
// a token.
void require_sendable(const Request& request) {
  const auto breaks_out = [](const std::string& part) {
    return part.find_first_of(std::string_view("\r\n\0", 3)) != std::string::npos;
  };
  for (const auto& [name, value] : request.header_items()) {
    if (breaks_out(name) || breaks_out(value)) throw ValueError("line break in the request header " + name);
  }
}

void drop_authorization(Request& request) {
  std::erase_if(request.headers,
                [](const auto& item) { return is_header_name(item.first, "authorization"); });
}

}  // namespace

// Handles keep their connections while they lie here. No handle is used by two threads at one time.
class InProcessClient::Pool {
 public:
  using Handle = std::unique_ptr<CURL, decltype(&curl_easy_cleanup)>;

  class Lease {
   public:
    explicit Lease(Pool& pool) : _pool(pool), _handle(pool._take()) {}
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;
    ~Lease() { _pool._give_back(std::move(_handle)); }
    CURL* handle() const noexcept { return _handle.get(); }

   private:
    Pool& _pool;
    Handle _handle;
  };

  Pool() { _idle.reserve(IDLE_HANDLE_LIMIT); }
  Pool(const Pool&) = delete;
  Pool& operator=(const Pool&) = delete;
  ~Pool() { _leave_to_parent(); }

 private:
  Handle _take() {
    {
      const MutexLock lock(_mutex);
      _leave_to_parent();
      if (!_idle.empty()) {
        Handle warm = std::move(_idle.back());
        _idle.pop_back();
        return warm;
      }
    }
    Handle fresh(curl_easy_init(), curl_easy_cleanup);
    if (!fresh) throw std::bad_alloc();
    return fresh;
  }

  void _give_back(Handle handle) noexcept {
    // The options point into a transfer that is gone.
    curl_easy_reset(handle.get());
    const MutexLock lock(_mutex);
    if (_idle.size() < IDLE_HANDLE_LIMIT) _idle.push_back(std::move(handle));
  }

  // A forked child shares its parent's connections: used or closed by both, they would carry the one's
  // answers to the other.
  void _leave_to_parent() noexcept REQUIRES(_mutex) {
    if (std::exchange(_owner, ::getpid()) == ::getpid()) return;
    for (auto& handle : _idle) static_cast<void>(handle.release());
    _idle.clear();
  }

  Mutex _mutex;
  std::vector<Handle> _idle GUARDED_BY(_mutex);
  pid_t _owner GUARDED_BY(_mutex) = ::getpid();
};

InProcessClient::InProcessClient() {
  initialise_library_once();
  _pool = std::make_unique<Pool>();
}

InProcessClient::~InProcessClient() = default;

InProcessClient::Answer InProcessClient::perform(const Request& request, double timeout_seconds,
                                                 BodySink& sink) {
  require_sendable(request);
  auto target = parse_http_url(request.full_url);
  if (!target) throw ValueError("not an http or https address that can be requested");
  Request hop = request;
  const Pool::Lease lease(*_pool);
  for (int redirects = 0;; ++redirects) {
    Transfer transfer(lease.handle(), hop, *target, timeout_seconds, redirects < REDIRECT_LIMIT, sink);
    transfer.run();
    const auto& next = transfer.redirect();
    if (!next) return {std::move(transfer.head()), transfer.cut_short()};
    if (!next->same_origin(*target)) drop_authorization(hop);
    target = *next;
  }
}

}  // namespace tidalcrest::sync
