#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace tidalcrest::origin {

using Headers = std::multimap<std::string, std::string>;

/// The value of the first header of that name in any letter case, or null.
const std::string* find_header(const Headers& headers, const std::string& name);

struct HttpRequest {
  std::string method;
  std::string path;   ///< as sent, without the query
  std::string query;  ///< without the question mark
  Headers headers;
  std::string body;
};

/// A file that is open for reading, shared by the answers that send from it.
class OpenFile {
 public:
  /// Throws `FileNotFoundError` or `OSError`.
  explicit OpenFile(const std::string& path);
  ~OpenFile();
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;
  std::uint64_t size() const noexcept { return _size; }
  /// Reads at most `count` bytes from `offset`; fewer at the end of the file. Throws `OSError`.
  std::size_t read_at(std::uint64_t offset, char* into, std::size_t count) const;

 private:
  int _fd;
  std::uint64_t _size;
};

/// A stretch of bytes in memory or of a file. Copying one copies no data.
struct Content {
  Content() = default;
  Content(std::string text);  // NOLINT(google-explicit-constructor): a text is the usual content
  explicit Content(std::shared_ptr<const OpenFile> whole_file);

  /// The part that begins at `from`, relative to this stretch.
  Content slice(std::uint64_t from, std::uint64_t count) const;

  std::shared_ptr<const std::string> bytes;
  std::shared_ptr<const OpenFile> file;
  std::uint64_t offset = 0;
  std::uint64_t length = 0;
};

/// How an answer travels: the faults of a connection. Byte counts are counts of body bytes.
struct Transmission {
  double delay_seconds = 0;                  ///< wait before the status line
  std::optional<std::uint64_t> stall_after;  ///< send nothing for `stall_seconds` at this point
  double stall_seconds = 60;                 ///< ends early when the server stops
  std::optional<std::uint64_t> call_after;   ///< run `call` at this point
  std::function<void()> call;
  std::optional<std::uint64_t> cut_after;    ///< close the connection at this point
  std::optional<std::uint64_t> reset_after;  ///< the same with a TCP reset
  std::optional<std::uint64_t> wrong_after;  ///< every byte from this point on is sent inverted
  /// Chunked transfer encoding, no Content-Length. A client that accepts compression gets texts compressed.
  bool chunked = false;
};

struct HttpResponse {
  int status = 200;
  Headers headers;  ///< a Content-Length here replaces the true one, and the connection closes after the body
  Content content;
  Transmission transmission;
};

/// Serves `whole` or the part of it that the request's Range asks for: 206 with Content-Range, 416 with
/// `bytes */size`. A header that is malformed, in another unit, for several parts, or guarded by an If-Range
/// is as good as none.
HttpResponse ranged_response(const HttpRequest& request, const Content& whole);

}  // namespace tidalcrest::origin
