#pragma once

#include <cstdint>
#include <string>

#include "host/mutex.hpp"
#include "tidalcrest/sync/document.hpp"

namespace tidalcrest::sync {

/// The three normalised transport settings of a manager. Replaced by a later `get_or_create`, read at the
/// start of each operation. Thread-safe.
class RuntimeKnobs {
 public:
  RuntimeKnobs(const Document& sync_http_transport, const Document& sync_http_chunk_bytes,
               const Document& sync_max_concurrency) {
    set(sync_http_transport, sync_http_chunk_bytes, sync_max_concurrency);
  }
  /// A null document keeps the current value. Sets transport, chunk bytes, concurrency in this order; an
  /// invalid one throws `ValueError` and leaves those set before it changed.
  void set(const Document& sync_http_transport, const Document& sync_http_chunk_bytes,
           const Document& sync_max_concurrency);
  std::string transport() const;
  std::int64_t chunk_bytes() const;
  std::int64_t max_concurrency() const;

 private:
  mutable Mutex _mutex;
  std::string _transport GUARDED_BY(_mutex);
  std::int64_t _chunk_bytes GUARDED_BY(_mutex) = 0;
  std::int64_t _max_concurrency GUARDED_BY(_mutex) = 0;
};

}  // namespace tidalcrest::sync
