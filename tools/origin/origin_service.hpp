#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "origin/faults.hpp"
#include "origin/http_server.hpp"
#include "origin/origin_tree.hpp"
#include "origin/scripted_server.hpp"

namespace tidalcrest::origin {

/// One request with the thing that it asked for: the path at the API, the manifest relative path at the data
/// origin.
struct OriginRequest {
  std::string resource;
  RecordedRequest request;
  int status = 200;  ///< of the answer, before a connection fault
};

struct ServiceOptions {
  int api_port = 0;                  ///< 0 lets the kernel choose
  std::optional<int> data_port = 0;  ///< absent: another server serves the data origin
  bool record = true;                ///< keep every request for `requests`
  /// Told of every request, from its connection's thread.
  std::function<void(const OriginRequest&)> observer = {};
};

/// Serves one tree on two loopback ports: the API, which wants the bearer token, and the public data origin.
/// What `state.json` says holds from the next request on, whoever changed it. Thread-safe.
///
/// API:   GET /data/manifest/version, /data/manifest, /data/shuffle, /market/{id}/era/current;
///        GET, POST (lines of `parse_fault`) and DELETE of /control/faults.
/// Data:  GET and HEAD of /releases/{name}/{path}, whole or one range.
class OriginService {
 public:
  OriginService(OriginTree tree, ServiceOptions options = {});
  ~OriginService();

  const OriginTree& tree() const noexcept;
  FaultList& faults() noexcept;
  std::string api_url() const;
  std::string data_url() const;  ///< empty without a data port
  std::string token() const;
  /// From now on only this token is let in.
  void set_token(const std::string& token);
  std::vector<OriginRequest> requests() const;
  void forget_requests();
  std::size_t connections_opened() const;
  void stop();

 private:
  struct Internals;
  std::unique_ptr<Internals> _internals;
};

}  // namespace tidalcrest::origin
