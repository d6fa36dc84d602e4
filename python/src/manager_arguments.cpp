#include "manager_arguments.hpp"

#include "arguments.hpp"
#include "callbacks.hpp"
#include "documents.hpp"

namespace tidalcrest::sync::python {

SyncOptions ManagerArguments::options() const {
  SyncOptions options;
  options.data_dir = data_dir_argument(data_dir);
  options.get_token = token_supplier(callable_argument(get_token, "get_token", /*or_none=*/true));
  if (!token.is_none()) options.token = text_from_python(py::str(token));
  options.server_url = text_argument(server_url, "server_url");
  options.poll_interval_s = number_argument(poll_interval_s, "poll_interval_s");
  if (!runtime_freshness_guard.is_none()) {
    options.runtime_freshness_guard = std::make_shared<PythonFreshnessGuard>(runtime_freshness_guard);
  }
  options.market_id = market_id_argument(market_id);
  options.sync_http_transport = knob_argument(sync_http_transport);
  options.sync_http_chunk_bytes = knob_argument(sync_http_chunk_bytes);
  options.sync_max_concurrency = knob_argument(sync_max_concurrency);
  options.get_wallet_secret =
      wallet_secret_supplier(callable_argument(get_wallet_secret, "get_wallet_secret", /*or_none=*/true));
  return options;
}

}  // namespace tidalcrest::sync::python
