#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "host/digest.hpp"
#include "siblings/distribution/pinned_root.hpp"
#include "tidalcrest/sync/progress.hpp"
#include "transport/http_types.hpp"

namespace tidalcrest::sync {

/// Tells a display how many bytes of one file are staged, as differences, over all attempts of its transfer.
class StagedBytesReport {
 public:
  explicit StagedBytesReport(SyncProgress& progress) noexcept : _progress(progress) {}
  void now_staged(std::int64_t size) noexcept;

 private:
  SyncProgress& _progress;
  std::int64_t _told = 0;
};

/// The staging file of one attempt, with the running digest of what it holds. Every byte is hashed while it
/// arrives; only bytes that an earlier attempt or process left behind are read back. Closed by the destructor
/// on every way out; what it holds is then the resume point. Throws `OSError` for a local failure.
class StagedFile {
 public:
  StagedFile(client_manifest::UpdatableFile file, StagedBytesReport& report);

  /// Starts the digest anew over the whole file, and leaves the offset at its end. A stop request ends it.
  void read_back();
  void append(std::string_view bytes);

  /// Marks the present end as the point to which a void answer is taken back.
  void mark();
  /// Takes back what was appended since the mark. False when a `drop` since then took the marked bytes too:
  /// the file is then empty.
  [[nodiscard]] bool rewind();
  /// Empties the file.
  void drop();
  /// Takes away what precedes the last `size` bytes, if these have the digest. A stop request ends it.
  void keep_end_with(std::int64_t size, const std::string& sha256);

  void flush() { _file.flush(); }
  void close() { _file.close(); }
  std::int64_t size() const noexcept { return _size; }
  std::string hexdigest() const { return _hash.hexdigest(); }
  /// For a writer that goes past this object; `read_back` must follow.
  client_manifest::UpdatableFile& file() noexcept { return _file; }

 private:
  // Calls `use` with the bytes from `offset` to the end, block by block.
  template <class Use>
  void _read_from(std::int64_t offset, Use&& use);
  void _set_size(std::int64_t size) noexcept;
  void _start_write_back() noexcept;

  client_manifest::UpdatableFile _file;
  StagedBytesReport& _report;
  Sha256 _hash;
  std::int64_t _size = 0;
  std::int64_t _write_back_from = 0;
  std::int64_t _mark = 0;
  bool _mark_lost = false;
  std::optional<Sha256> _hash_at_mark;  // left empty for a mark at 0
};

/// What an answer's body may do to a staging file. A status that is not taken writes nothing.
struct BodyRule {
  bool takes_part = false;   ///< 206 continues after the mark
  bool takes_whole = false;  ///< 200 replaces everything
  bool takes(std::int64_t status) const noexcept {
    return (takes_part && status == 206) || (takes_whole && status == 200);
  }
};

/// Ends a transfer that has brought more than its file can hold. Not one of the failure family: it never
/// leaves the attempt, and what has come is left to the digest.
struct MoreThanWanted {};

/// Writes a body into a staging file while it arrives. An answer that broke off and is asked for again inside
/// the request engine leaves nothing behind.
class StagingSink : public BodySink {
 public:
  /// `most_bytes` is what the staging file may hold at the end; 0 bounds nothing.
  StagingSink(StagedFile& staged, BodyRule rule, std::int64_t most_bytes) noexcept
      : _staged(staged), _rule(rule), _most_bytes(most_bytes) {}
  void begin(std::int64_t status, const HeaderMap& headers) override;
  /// Throws `MoreThanWanted`.
  void write(std::string_view piece) override;
  std::int64_t most_bytes() const noexcept override { return _most_bytes; }
  std::int64_t status() const noexcept { return _status; }

 private:
  StagedFile& _staged;
  const BodyRule _rule;
  const std::int64_t _most_bytes;
  std::int64_t _status = 0;
  bool _takes_body = false;
};

}  // namespace tidalcrest::sync
