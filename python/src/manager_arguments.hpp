#pragma once

#include <pybind11/pybind11.h>

#include "tidalcrest/sync/sync_manager.hpp"

namespace tidalcrest::sync::python {

namespace py = pybind11;

/// The named arguments of a manager, as they came.
struct ManagerArguments {
  py::object data_dir, server_url, get_token, poll_interval_s, runtime_freshness_guard, token, market_id,
      sync_http_transport, sync_http_chunk_bytes, sync_max_concurrency, get_wallet_secret;

  /// Raises `TypeError` and `ValueError` that name the argument.
  SyncOptions options() const;
};

}  // namespace tidalcrest::sync::python
