#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "origin/http_server.hpp"
#include "tidalcrest/sync/document.hpp"

namespace tidalcrest::origin {

/// Whether `text` matches a pattern in which `*` stands for any characters and `?` for any one.
bool glob_matches(const std::string& pattern, const std::string& text);

/// One thing that goes wrong with some requests. Byte counts are body bytes of the one answer.
struct Fault {
  enum class Kind {
    STATUS,                 ///< answer `status` with `body`
    BODY,                   ///< answer 200 with `body` in place of the true one
    CUT,                    ///< close the connection after `after` bytes
    RESET,                  ///< the same with a TCP reset
    STALL,                  ///< send nothing for `seconds` after `after` bytes
    DELAY,                  ///< wait `seconds` before the status line
    IGNORE_RANGE,           ///< answer 200 with the whole file
    RANGE_NOT_SATISFIABLE,  ///< answer 416
    WRONG_BYTES,            ///< every byte from `after` on is wrong, the length is right
    SWITCH,                 ///< the held release becomes current after `after` bytes
    CALL,                   ///< run `call` after `after` bytes; nothing goes wrong
  };
  Kind kind = Kind::STATUS;
  int status = 503;
  std::uint64_t after = 0;
  double seconds = 60;
  std::string body = {};
  Headers headers = {};  ///< added to the answer
  std::function<void()> call = {};
  std::size_t count = 1;  ///< so many requests are hit; 0 for all
  std::size_t skip = 0;   ///< after so many matching requests were let through
};

/// Reads `PATTERN KIND[=VALUE] [count=N|all] [skip=N] [seconds=S] [body=TEXT...]`, where KIND is
/// `status=CODE`, `body`, `cut=BYTES`, `reset=BYTES`, `stall=BYTES`, `delay=SECONDS`, `ignore-range`, `416`,
/// `wrong-bytes[=BYTES]` or `switch[=BYTES]`, and `body=` takes the rest of the line. Throws `ValueError`.
std::pair<std::string, Fault> parse_fault(const std::string& text);

/// The faults of a server, oldest first. Thread-safe.
class FaultList {
 public:
  /// `pattern` is matched against the resource: the path at the API (`/data/manifest`), the manifest relative
  /// path at the data origin (`features/u1/*`, `manifest.json`).
  void add(const std::string& pattern, Fault fault);
  void clear();
  /// The fault that this request meets; counts it.
  std::optional<Fault> take(const std::string& resource);
  /// A list of objects: pattern, hits, and whether it is used up.
  sync::Document describe() const;

 private:
  struct Entry {
    std::string pattern;
    Fault fault;
    std::size_t seen = 0;
    std::size_t hits = 0;
    bool used_up() const { return fault.count != 0 && hits >= fault.count; }
  };
  mutable std::mutex _mutex;  // guards `_entries`
  std::vector<Entry> _entries;
};

/// The answer that a request gets under a fault. `respond` makes the true answer to a request;
/// `switch_release` makes the held release current.
HttpResponse apply_fault(const Fault& fault, const HttpRequest& request, const HttpServer::Handler& respond,
                         const std::function<void()>& switch_release);

}  // namespace tidalcrest::origin
