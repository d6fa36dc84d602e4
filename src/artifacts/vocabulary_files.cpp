#include "artifacts/vocabulary_files.hpp"

#include <fmt/format.h>

#include <utility>

#include "artifacts/manifest_entry.hpp"
#include "artifacts/wrapped_failures.hpp"
#include "host/digest.hpp"
#include "host/equality.hpp"
#include "host/integer.hpp"
#include "host/log.hpp"
#include "host/text.hpp"
#include "host/unusable.hpp"
#include "manifest/paths.hpp"
#include "siblings/distribution/contained_files.hpp"
#include "tidalcrest/sync/errors.hpp"
#include "transport/settings.hpp"

namespace tidalcrest::sync {
namespace {

constexpr const char* VOCABULARY_LABEL = "vocabulary file";

// One vocabulary of a manifest, on its way into a root.
struct Member {
  const std::string& data_dir;
  const std::string& file_path;
  const Manifest& manifest;

  Document validated(std::string_view bytes) const {
    return _validate_vocabulary_bytes(bytes, to_int(manifest.era_number()),
                                      _vocabulary_named_universe_from_path(file_path));
  }
};

std::optional<std::string> read_local(const Member& member) {
  return wrap_unusable("Unable to read local vocabulary " + member.file_path, [&] {
    return client_manifest::read_contained_regular_file_if_present(member.data_dir, member.file_path,
                                                                   VOCABULARY_LABEL);
  });
}

Document validate_local(const Member& member, const std::string& bytes) {
  const ManifestEntry entry(member.manifest, member.file_path);
  const std::string expected_sha = entry.text("sha256");
  if (expected_sha.empty()) {
    throw IntegrityError("Vocabulary manifest sha256 is required: " + member.file_path);
  }
  if (sha256_hex(bytes) != expected_sha)
    throw IntegrityError("Vocabulary checksum mismatch: " + member.file_path);
  const Document size = entry.value("size_bytes");
  if (!size.is_null() && !host_equal(size, Document(bytes.size()))) {
    throw IntegrityError("Vocabulary size mismatch: " + member.file_path);
  }
  return member.validated(bytes);
}

// The local copy when it is good. A bad one is never fatal: it is fetched again.
std::optional<Document> good_local_vocabulary(const Member& member) {
  const std::optional<std::string> bytes = read_local(member);
  if (!bytes) return std::nullopt;
  try {
    return validate_local(member, *bytes);
  } catch (const std::exception& failure) {
    log::warning("Local vocabulary %s failed validation; re-downloading: %s", member.file_path,
                 failure.what());
    return std::nullopt;
  }
}

std::string read_downloaded(const Member& member) {
  try {
    return client_manifest::read_contained_regular_file(member.data_dir, member.file_path, VOCABULARY_LABEL);
  } catch (const FileNotFoundError&) {
    throw SyncError(fmt::format("Failed to download vocabulary: {} was not written", member.file_path));
  }
}

void remove_failed(const Member& member) {
  try {
    client_manifest::remove_contained_regular_file(member.data_dir, member.file_path, true);
  } catch (const Failure& failure) {
    if (!is_unusable(failure)) throw;
  }
}

Document downloaded_vocabulary(const Member& member, const FileDownloader& downloader) {
  const ManifestEntry entry(member.manifest, member.file_path);
  DownloadOptions options;
  options.generation = data_origin_of(member.manifest);
  options.target_data_dir = member.data_dir;
  options.retry_partial_transfer = false;
  options.retry_checksum_mismatch = false;
  SyncResult scratch_result;  // vocabulary traffic does not count in the caller's result
  try {
    downloader._download_file({member.file_path, entry.file_info()}, scratch_result, options);
    return member.validated(read_downloaded(member));
  } catch (...) {
    remove_failed(member);
    throw;
  }
}

// The address a repair fetches from: the entry's own when it has one, else the manifest's.
Document repair_base_url(const FileEntry& file_info, const Manifest* manifest) {
  for (const char* const key : {"_manifest_base_url", "base_url"}) {
    Document base_url = file_info.value(key);
    if (text::truthy(base_url)) return base_url;
  }
  return manifest ? manifest->base_url() : Document();
}

void require_declared_bytes(const std::string& file_path, const ManifestEntry& entry, const std::string& body,
                            const std::string& actual_sha) {
  const std::string expected_sha = entry.text("sha256");
  if (!expected_sha.empty() && expected_sha != actual_sha) {
    throw IntegrityError(
        fmt::format("Checksum failure for {}: expected {}, got {}", file_path, expected_sha, actual_sha));
  }
  const Document expected_size = entry.value("size_bytes");
  if (!expected_size.is_null() && to_int(expected_size) != static_cast<std::int64_t>(body.size())) {
    throw IntegrityError(fmt::format("Size failure for {}: expected {}, got {}", file_path,
                                     text::str(expected_size), body.size()));
  }
}

}  // namespace

VocabularyFiles::VocabularyFiles(std::string data_dir, std::string server_url,
                                 const FileDownloader& downloader, const ManagerHttp& http,
                                 ActiveViewHolder& active, HashCache& hash_cache)
    : _data_dir(std::move(data_dir)),
      _server_url(std::move(server_url)),
      _downloader(downloader),
      _http(http),
      _active(active),
      _hash_cache(hash_cache) {}

bool VocabularyFiles::_download_vocabulary(const Manifest& server_manifest,
                                           const std::optional<std::string>& target_data_dir) const {
  const std::string& data_dir = target_data_dir ? *target_data_dir : _data_dir;
  Vocabularies vocabularies = Document::object();
  bool downloaded = false;
  for (const std::string& file_path : _require_vocabulary_manifest_paths(server_manifest)) {
    const Member member{data_dir, file_path, server_manifest};
    std::optional<Document> vocabulary = good_local_vocabulary(member);
    if (!vocabulary) {
      vocabulary = downloaded_vocabulary(member, _downloader);
      downloaded = true;
    }
    vocabularies[*_vocabulary_named_universe_from_path(file_path)] = *std::move(vocabulary);
  }
  // Staging fills another root and must not change what consumers see.
  if (!target_data_dir) _set_vocabulary(std::move(vocabularies));
  return downloaded;
}

bool VocabularyFiles::_download_validated_vocabulary_repair(const std::string& file_path,
                                                            const FileEntry& file_info,
                                                            SyncResult& result) const {
  const auto named_universe = _vocabulary_named_universe_from_path(file_path);
  if (!named_universe) return false;
  const std::shared_ptr<const Manifest> manifest = _active.get()->manifest;
  const std::string url =
      _manifest_file_url(_server_url, file_path, repair_base_url(file_info, manifest.get()));
  const HttpResult answer = _http._http_get_public(url);
  if (answer.status != 200) _raise_download_http_status(file_path, answer.status);
  if (!manifest) throw StateError("vocabulary repair needs an active manifest");
  Document vocabulary =
      _validate_vocabulary_bytes(answer.body, to_int(manifest->era_number()), named_universe);
  const std::string actual_sha = sha256_hex(answer.body);
  require_declared_bytes(file_path, ManifestEntry(file_info), answer.body, actual_sha);
  client_manifest::write_contained_regular_file(_data_dir, file_path, answer.body, true);
  _hash_cache._remember_local_sha(_data_dir, file_path, actual_sha);

  const std::shared_ptr<const Vocabularies> current = _active.get()->vocabulary;
  Vocabularies vocabularies = current ? *current : Document::object();
  vocabularies[*named_universe] = std::move(vocabulary);
  _set_vocabulary(std::move(vocabularies));
  result.bytes_downloaded += static_cast<std::int64_t>(answer.body.size());
  result.vocabulary_downloaded = true;
  return true;
}

void VocabularyFiles::_set_vocabulary(Vocabularies vocabularies) const {
  auto view = std::make_shared<ActiveView>(*_active.get());
  view->vocabulary = std::make_shared<const Vocabularies>(std::move(vocabularies));
  _active.set(std::move(view));
}

}  // namespace tidalcrest::sync
