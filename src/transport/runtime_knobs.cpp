#include "transport/runtime_knobs.hpp"

#include "transport/settings.hpp"

namespace tidalcrest::sync {
namespace {

// The value to normalise: the argument, or what is in force when there is none.
template <class Value>
Document input_of(const Document& argument, const Value& in_force) {
  if (!argument.is_null() || in_force == Value()) return argument;
  return in_force;
}

}  // namespace

void RuntimeKnobs::set(const Document& sync_http_transport, const Document& sync_http_chunk_bytes,
                       const Document& sync_max_concurrency) {
  const MutexLock lock(_mutex);
  _transport = _sync_http_transport(input_of(sync_http_transport, _transport));
  _chunk_bytes = _sync_http_chunk_bytes(input_of(sync_http_chunk_bytes, _chunk_bytes));
  _max_concurrency = _sync_max_concurrency(input_of(sync_max_concurrency, _max_concurrency));
}

std::string RuntimeKnobs::transport() const {
  const MutexLock lock(_mutex);
  return _transport;
}

std::int64_t RuntimeKnobs::chunk_bytes() const {
  const MutexLock lock(_mutex);
  return _chunk_bytes;
}

std::int64_t RuntimeKnobs::max_concurrency() const {
  const MutexLock lock(_mutex);
  return _max_concurrency;
}

}  // namespace tidalcrest::sync
