#include "download/staged_file.hpp"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <memory>
#include <utility>

#include "siblings/distribution/sync_backoff.hpp"

namespace tidalcrest::sync {
namespace {

constexpr std::size_t FIRST_LOOK_BYTES = 4096;
constexpr std::size_t READ_BACK_BLOCK_BYTES = 1048576;
constexpr std::int64_t WRITE_BACK_STEP_BYTES = 8388608;

}  // namespace

void StagedBytesReport::now_staged(std::int64_t size) noexcept {
  const std::int64_t change = size - std::exchange(_told, size);
  if (change == 0) return;
  try {
    _progress.on_bytes(change);
  } catch (...) {
    // A display must not fail a download.
  }
}

StagedFile::StagedFile(client_manifest::UpdatableFile file, StagedBytesReport& report)
    : _file(std::move(file)), _report(report) {}

void StagedFile::read_back() {
  _hash.reset();
  _file.seek(0);
  std::int64_t size = 0;
  const auto take = [&](char* block, std::size_t block_bytes) {
    const std::size_t count = _file.read(block, block_bytes);
    _hash.update({block, count});
    size += static_cast<std::int64_t>(count);
    return count > 0;
  };
  // Nearly every staging file is new and empty: the first look needs no large block.
  std::array<char, FIRST_LOOK_BYTES> first_look;
  if (take(first_look.data(), first_look.size())) {
    const auto block = std::make_unique_for_overwrite<char[]>(READ_BACK_BLOCK_BYTES);
    const auto end_if_stopped = sync_backoff::stop_check_of_this_thread();
    while (take(block.get(), READ_BACK_BLOCK_BYTES)) end_if_stopped();
  }
  _write_back_from = size;
  _set_size(size);
}

void StagedFile::append(std::string_view bytes) {
  _file.write(bytes);
  _hash.update(bytes);
  _set_size(_size + static_cast<std::int64_t>(bytes.size()));
  if (_size - _write_back_from >= WRITE_BACK_STEP_BYTES) _start_write_back();
}

void StagedFile::mark() {
  _mark = _size;
  _mark_lost = false;
  if (_mark > 0) _hash_at_mark = _hash;
}

bool StagedFile::rewind() {
  if (_mark_lost || _mark == 0) {
    if (_size > 0) drop();
    return !_mark_lost;
  }
  if (_size == _mark) return true;
  _file.truncate(_mark);
  _hash = *_hash_at_mark;
  _write_back_from = std::min(_write_back_from, _mark);
  _set_size(_mark);
  return true;
}

void StagedFile::drop() {
  _mark_lost = _mark > 0;
  _file.seek(0);
  _file.truncate(0);
  _hash.reset();
  _write_back_from = 0;
  _set_size(0);
}

void StagedFile::keep_end_with(std::int64_t size, const std::string& sha256) {
  const std::int64_t start = _size - size;
  Sha256 hash_of_end;
  _read_from(start, [&](std::int64_t, std::string_view bytes) { hash_of_end.update(bytes); });
  if (hash_of_end.hexdigest() != sha256) return;
  _read_from(start, [&](std::int64_t offset, std::string_view bytes) {
    _file.seek(offset - start);
    _file.write(bytes);
  });
  _file.truncate(size);
  _hash = hash_of_end;
  _write_back_from = 0;
  _set_size(size);
}

template <class Use>
void StagedFile::_read_from(std::int64_t offset, Use&& use) {
  const auto block = std::make_unique_for_overwrite<char[]>(READ_BACK_BLOCK_BYTES);
  const auto end_if_stopped = sync_backoff::stop_check_of_this_thread();
  for (_file.seek(offset);; _file.seek(offset)) {
    end_if_stopped();
    const std::size_t count = _file.read(block.get(), READ_BACK_BLOCK_BYTES);
    if (count == 0) return;
    use(offset, std::string_view(block.get(), count));
    offset += static_cast<std::int64_t>(count);
  }
}

void StagedFile::_set_size(std::int64_t size) noexcept {
  _size = size;
  _report.now_staged(size);
}

// The disk works while the rest arrives, so that the one flush before the publication finds little left to
// do. Advice only: nothing depends on it, and its failure is no failure.
void StagedFile::_start_write_back() noexcept {
  const std::int64_t from = std::exchange(_write_back_from, _size);
#ifdef SYNC_FILE_RANGE_WRITE
  ::sync_file_range(_file.descriptor(), from, _size - from, SYNC_FILE_RANGE_WRITE);
#else
  static_cast<void>(from);
#endif
}

void StagingSink::begin(std::int64_t status, const HeaderMap&) {
  _status = status;
  _takes_body = _rule.takes(status);
  if (!_takes_body) return;
  if (status == 200) {
    if (_staged.size() > 0) _staged.drop();
  } else if (!_staged.rewind()) {
    // A whole answer began to replace the staged bytes and broke off; now the server sends what would have
    // followed them. Nothing fits together any more, so the attempt ends and the next one starts clean.
    throw ConnectionError("the resume point was lost to an answer that broke off");
  }
}

void StagingSink::write(std::string_view piece) {
  if (!_takes_body) return;
  _staged.append(piece);
  if (_most_bytes > 0 && _staged.size() > _most_bytes) throw MoreThanWanted{};
}

}  // namespace tidalcrest::sync
