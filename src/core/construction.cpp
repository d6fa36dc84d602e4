#include "core/construction.hpp"

#include <cmath>

#include "siblings/distribution/pinned_root.hpp"
#include "siblings/security/transport.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {

std::function<std::string()> checked_token_supplier(const SyncOptions& options) {
  if (options.get_token) return options.get_token;
  if (options.token) return [token = *options.token] { return token; };
  throw TypeError("get_token must be callable, got NoneType");
}

void check_server_url(const std::string& server_url) {
  if (server_url.empty()) throw ValueError("server_url must not be empty");
  security::validate_bearer_transport_url(server_url);
}

void check_data_dir(const std::string& data_dir) {
  const std::string unsafe = "data_dir is not a safe directory: " + data_dir;
  try {
    client_manifest::PinnedRoot(data_dir).assert_root_unchanged();
  } catch (const FileNotFoundError&) {
    throw FileNotFoundError("data_dir does not exist: " + data_dir);
  } catch (const OSError&) {
    throw ValueError(unsafe);
  } catch (const TypeError&) {
    throw ValueError(unsafe);
  } catch (const ValueError&) {
    throw ValueError(unsafe);
  }
}

void check_poll_interval(double poll_interval_s) {
  if (std::isnan(poll_interval_s)) throw ValueError("poll_interval_s must be a number of seconds, not nan");
}

}  // namespace tidalcrest::sync
