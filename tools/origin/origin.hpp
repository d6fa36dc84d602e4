#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "origin/faults.hpp"
#include "origin/manifest_builder.hpp"
#include "origin/origin_service.hpp"
#include "origin/origin_tree.hpp"

namespace tidalcrest::origin {

/// A whole origin inside a test: a distribution in a temporary directory, served on two loopback ports by the
/// code of `tidalcrest-origin serve`. Nothing is published at first. Thread-safe; the destructor ends every
/// connection and removes the directory.
///
///     Origin origin;
///     auto content = ManifestBuilder{}.feature("u1", "signal_is", "a__b__c__d", "bytes");
///     origin.publish(content);                                       // version 1 of era 1
///     origin.fault("features/* cut=3");
///     ... client with origin.server_url(), origin.token(), origin.wallet_secret() ...
///     EXPECT_THAT(origin.ranges_asked("features/u1/signal_is/a__b__c__d.arrow"), ElementsAre("",
///     "bytes=3-")); origin.publish(content.file("extra.bin", "more", "reference"));  // version 2
class Origin {
 public:
  explicit Origin(std::int64_t market_id = 1, std::uint64_t number = 1);
  ~Origin();
  Origin(const Origin&) = delete;
  Origin& operator=(const Origin&) = delete;

  std::string server_url() const { return _service->api_url(); }
  /// The data origin; the manifest's `base_url` is `{data_url}/releases/{name}`.
  std::string data_url() const { return _service->data_url(); }
  std::string token() const { return _service->token(); }
  std::string wallet_secret() const { return tree().wallet_secret(); }
  const OriginTree& tree() const noexcept { return _service->tree(); }

  /// Writes a release and makes it current. Unless the builder says otherwise it is the next version of the
  /// era. Another era becomes the market's era, in state "active".
  Release publish(const ManifestBuilder& content);
  /// Writes a release that becomes current by `release_held` or by a SWITCH fault.
  Release prepare(const ManifestBuilder& content);
  void release_held();
  Release current() const;

  /// "active", "closing" or "between_eras"; empty `next_closing_at` is null.
  void set_era_state(const std::string& state, const std::string& next_closing_at = {});
  /// What era-current says, whatever the current release's era is.
  void set_era_number(std::int64_t era_number);
  void set_min_library_version(const std::string& version);
  /// From now on only this token is let in, and `token` gives it.
  void set_token(const std::string& token) { _service->set_token(token); }

  /// `pattern` as in `FaultList::add`.
  void fault(const std::string& pattern, Fault fault) { _service->faults().add(pattern, std::move(fault)); }
  /// Pattern and fault in the words of `parse_fault`.
  void fault(const std::string& words) {
    const auto [pattern, named] = parse_fault(words);
    fault(pattern, named);
  }
  /// Runs `call` on the server's thread before the body of the next request that matches.
  void on_request(const std::string& pattern, std::function<void()> call);
  void clear_faults() { _service->faults().clear(); }

  /// Requests whose resource matches the pattern, in order.
  std::vector<OriginRequest> requests(const std::string& pattern = "*") const;
  /// Their resources alone.
  std::vector<std::string> resources_asked(const std::string& pattern = "*") const;
  /// Their Range headers, empty text where there was none.
  std::vector<std::string> ranges_asked(const std::string& pattern) const;
  void forget_requests() { _service->forget_requests(); }
  std::size_t connections_opened() const { return _service->connections_opened(); }
  /// Ends the servers, so that the next connection is refused.
  void stop() { _service->stop(); }

 private:
  std::filesystem::path _root;
  std::unique_ptr<OriginService> _service;
};

}  // namespace tidalcrest::origin
