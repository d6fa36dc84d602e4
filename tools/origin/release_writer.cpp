#include "origin/release_writer.hpp"

#include <cerrno>
#include <fstream>

#include "host/digest.hpp"
#include "host/failures.hpp"
#include "host/json.hpp"
#include "origin/http_message.hpp"
#include "origin/origin_tree.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::origin {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t PIECE_BYTES = 1024 * 1024;

/// Calls `take` with the content, piece by piece.
template <class Take>
void stream(const FileContent& content, const Take& take) {
  if (const auto* bytes = std::get_if<std::shared_ptr<const std::string>>(&content)) {
    take(**bytes);
    return;
  }
  std::string piece;
  if (const auto* generated = std::get_if<GeneratedBytes>(&content)) {
    ByteGenerator generator(*generated);
    for (generator.next(piece, PIECE_BYTES); !piece.empty(); generator.next(piece, PIECE_BYTES)) take(piece);
    return;
  }
  const OpenFile file(std::get<fs::path>(content).string());
  std::uint64_t offset = 0;
  for (;;) {
    piece.resize(PIECE_BYTES);
    piece.resize(file.read_at(offset, piece.data(), piece.size()));
    if (piece.empty()) return;
    take(piece);
    offset += piece.size();
  }
}

const Document* entry_before(const Release* before, const std::string& path) {
  const auto* files = before == nullptr ? nullptr : sync::find_member(before->manifest, "files");
  return files == nullptr ? nullptr : sync::find_member(*files, path);
}

}  // namespace

ReleaseWriter::ReleaseWriter(fs::path directory, const Release* before)
    : _directory(std::move(directory)), _before(before) {
  fs::create_directories(_directory);
}

Document ReleaseWriter::write(const std::string& path, const FileSource& source) {
  if (std::holds_alternative<KeptFile>(source.content)) return _keep(path, source);
  const auto target = _target(path);
  std::ofstream out(target, std::ios::binary | std::ios::trunc);
  sync::Sha256 digest;
  std::uint64_t size = 0;
  stream(source.content, [&](const std::string& piece) {
    out.write(piece.data(), static_cast<std::streamsize>(piece.size()));
    digest.update(piece);
    size += piece.size();
  });
  out.close();
  if (!out) sync::throw_os_error(errno != 0 ? errno : EIO, target.string());

  Document entry = {{"kind", source.kind}, {"sha256", digest.hexdigest()}, {"size_bytes", size}};
  const auto* old = entry_before(_before, path);
  if (old != nullptr && old->value("sha256", "") == entry["sha256"] &&
      fs::exists(_before->directory / path)) {
    fs::remove(target);
    _link(path);
  }
  for (const auto& [key, value] : source.extra.get_ref<const Document::object_t&>()) entry[key] = value;
  return entry;
}

Document ReleaseWriter::_keep(const std::string& path, const FileSource& source) {
  const auto* old = entry_before(_before, path);
  if (old == nullptr) throw sync::ValueError("there is no file to keep: " + path);
  _target(path);
  _link(path);
  auto entry = *old;
  for (const auto& [key, value] : source.extra.get_ref<const Document::object_t&>()) entry[key] = value;
  return entry;
}

void ReleaseWriter::_link(const std::string& path) {
  fs::create_hard_link(_before->directory / path, _directory / path);
}

fs::path ReleaseWriter::_target(const std::string& path) {
  auto target = _directory / path;
  if (_made.insert(target.parent_path().string()).second) fs::create_directories(target.parent_path());
  return target;
}

}  // namespace tidalcrest::origin
