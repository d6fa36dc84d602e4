#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {

using HeaderItems = std::vector<std::pair<std::string, std::string>>;

/// Header pairs in the order received, names kept as received; a later duplicate replaces the value of the
/// earlier one.
class HeaderMap {
 public:
  void set(std::string name, std::string value);
  /// Takes one header line as it came, bytes above 127 read as ISO 8859-1. A line without a colon is dropped.
  void add_line(std::string_view line);
  /// Match of the name in any letter case.
  const std::string* find_any_case(std::string_view name) const noexcept;
  const HeaderItems& items() const noexcept { return _items; }
  bool empty() const noexcept { return _items.empty(); }

 private:
  HeaderItems _items;
};

struct Request {
  std::string full_url;
  HeaderItems headers;
  const HeaderItems& header_items() const noexcept { return headers; }
};

/// Whether a header name is `lower_case_name` in any letter case.
bool is_header_name(std::string_view name, std::string_view lower_case_name) noexcept;

/// Answer of every retrying GET. `status` can be any status that is not transient; no exception signals a
/// 404.
struct HttpResult {
  std::int64_t status = 0;
  HeaderMap headers;
  std::string body;
};

/// Answer of a GET whose body has gone elsewhere.
struct HttpHead {
  std::int64_t status = 0;
  HeaderMap headers;
};

/// Receives the body of a successful answer while it arrives. `begin` opens every answer below 400, also one
/// of a repeated attempt: what an earlier attempt wrote is then void. A body that ends short is handed on as
/// it is; the caller's size and digest checks decide about it. What a sink throws ends the request and
/// reaches the caller unchanged; it is never taken for a network failure.
class BodySink {
 public:
  virtual ~BodySink() = default;
  virtual void begin(std::int64_t status, const HeaderMap& headers) = 0;
  virtual void write(std::string_view piece) = 0;
  /// The length of a body past which `write` throws; 0 when it takes any.
  virtual std::int64_t most_bytes() const noexcept { return 0; }
};

/// An answer with a status of 400 or above, or a redirect that may not be followed.
class HTTPError : public virtual URLError {
 public:
  HTTPError(std::string url, std::int64_t code, const std::string& message, HeaderMap headers,
            std::string body);
  const char* type_name() const noexcept override { return "HTTPError"; }
  std::string url;
  std::int64_t code;
  HeaderMap headers;
  std::string body;  ///< bounded: an error body is cut at 1 MiB; empty when it could not be read
};

}  // namespace tidalcrest::sync
