#include "artifacts/shuffle_seed.hpp"

#include <fmt/format.h>
#include <openssl/crypto.h>

#include <utility>

#include "host/integer.hpp"
#include "host/log.hpp"
#include "host/text.hpp"
#include "siblings/distribution/pinned_root.hpp"
#include "siblings/distribution/shuffle_seed_cipher.hpp"
#include "tidalcrest/sync/constants.hpp"
#include "tidalcrest/sync/errors.hpp"
#include "transport/backoff.hpp"

namespace tidalcrest::sync {
namespace {

using shuffle_seed_state::AuthenticatedSeed;
using shuffle_seed_state::SHUFFLE_SEED_BYTES;
using shuffle_seed_state::SHUFFLE_SEED_FILE;
using shuffle_seed_state::SHUFFLE_SEED_METADATA_FILE;
using shuffle_seed_state::WALLET_SECRET_BYTES;

std::optional<std::string> stripped_text(const Document& value) {
  if (value.is_null()) return std::nullopt;
  std::string stripped = text::strip(text::str(value));
  if (stripped.empty()) return std::nullopt;
  return stripped;
}

// What the sibling refuses is a failure of the sync, in the sibling's words.
template <class Call>
auto as_sync_error(Call call) {
  try {
    return call();
  } catch (const ShuffleSeedStateError& failure) {
    throw SyncError(failure.what());
  }
}

// The two key headers bind an answer to the selected manifest. An answer without them passes.
void require_selected_key(const HeaderMap& headers, const std::optional<std::string>& expected_generation,
                          const std::optional<std::string>& expected_source) {
  const auto header_generation = _header_value(headers, SHUFFLE_KEY_GENERATION_HEADER);
  if (header_generation && _coerce_shuffle_key_generation(*header_generation) != expected_generation) {
    throw SyncError("shuffle seed response generation differs from selected manifest");
  }
  const auto header_source = _header_value(headers, SHUFFLE_KEY_SOURCE_HEADER);
  if (header_source && _coerce_shuffle_key_source(*header_source) != expected_source) {
    throw SyncError("shuffle seed response source differs from selected manifest");
  }
}

void require_success(std::int64_t status) {
  if (status == 401) throw AuthError("Authentication failed while downloading shuffle seed: HTTP 401");
  if (status != 200) throw SyncError(fmt::format("Failed to download shuffle seed: HTTP {}", status));
}

std::int64_t era_number_of(const std::string& header, const std::string& artifact) {
  try {
    return to_int(std::string_view(header));
  } catch (const ValueError&) {
    throw EraError(fmt::format("{} response has invalid X-Era-Number={}", artifact, text::repr(header)));
  }
}

bool has_seed_length(std::string_view body) {
  try {
    _validate_shuffle_seed_bytes(body);
    return true;
  } catch (const SyncError&) {
    return false;
  }
}

void write_pair(const std::string& root_dir, std::string_view ciphertext, std::string_view metadata_bytes) {
  const client_manifest::PinnedRoot root(root_dir);
  root.write_atomic(SHUFFLE_SEED_FILE, ciphertext, true);
  root.write_atomic(SHUFFLE_SEED_METADATA_FILE, metadata_bytes, true);
  root.assert_root_unchanged();
}

}  // namespace

std::optional<std::string> _header_value(const HeaderMap& headers, const std::string& name) {
  const std::string wanted = text::lower(name);
  for (const auto& [key, value] : headers.items()) {
    if (text::lower(key) == wanted) return value;
  }
  return std::nullopt;
}

void _validate_response_era_header(const HeaderMap& headers, std::int64_t expected_era_number,
                                   const std::string& artifact) {
  const std::optional<std::string> raw = _header_value(headers, "X-Era-Number");
  if (!raw) throw SyncError(artifact + " response is missing X-Era-Number");
  const std::int64_t response_era_number = era_number_of(*raw, artifact);
  if (response_era_number != expected_era_number) {
    throw EraError(fmt::format("{} response era_number={} does not match manifest era_number={}", artifact,
                               response_era_number, expected_era_number));
  }
}

std::optional<std::string> _coerce_shuffle_key_generation(const Document& value) {
  const std::optional<std::string> generation = stripped_text(value);
  if (!generation || *generation == SHUFFLE_KEY_GENERATION_MARKET_ERA_V1) return generation;
  if (*generation == RETIRED_SHUFFLE_KEY_GENERATION_ERA_ONLY_V1) {
    throw SyncError(
        "retired shuffle_key_generation 'legacy-era-only-v1' is not supported; sync the current "
        "market-era-v1 distribution");
  }
  throw SyncError("unknown shuffle_key_generation " + text::repr(*generation));
}

std::optional<std::string> _coerce_shuffle_key_source(const Document& value) {
  const std::optional<std::string> source = stripped_text(value);
  if (source && source->find_first_of(std::string_view("\0\r\n", 3)) != std::string::npos) {
    throw SyncError("shuffle_key_source must be a single-line string");
  }
  return source;
}

std::optional<std::string> _shuffle_seed_generation_for_manifest(const Manifest& manifest) {
  return _coerce_shuffle_key_generation(manifest.shuffle_key_generation());
}

std::optional<std::string> _shuffle_seed_source_for_manifest(const Manifest& manifest) {
  return _coerce_shuffle_key_source(manifest.shuffle_key_source());
}

void _validate_shuffle_seed_bytes(std::string_view data) {
  if (data.size() == SHUFFLE_SEED_BYTES) return;
  throw SyncError(fmt::format("shuffle_seed.enc has invalid size: expected {} bytes, got {}",
                              SHUFFLE_SEED_BYTES, data.size()));
}

WalletSecret::~WalletSecret() { OPENSSL_cleanse(_bytes.data(), _bytes.size()); }

ShuffleSeed::ShuffleSeed(std::string server_url, const ManagerHttp& http, const ActiveViewHolder& active,
                         Seams seams)
    : _server_url(std::move(server_url)), _http(http), _active(active), _seams(std::move(seams)) {}

WalletSecret supplied_wallet_secret(const std::function<std::optional<std::string>()>& supplier) {
  if (!supplier) throw SyncError("wallet_secret supplier is required to authenticate shuffle seed state");
  std::optional<std::string> supplied = supplier();
  WalletSecret secret(std::move(supplied).value_or(std::string()));
  if (std::string_view(secret).size() != WALLET_SECRET_BYTES) {
    throw SyncError("wallet_secret must be exactly 32 bytes");
  }
  return secret;
}

WalletSecret ShuffleSeed::_wallet_secret() const {
  return supplied_wallet_secret(_http.credentials().wallet_secret_supplier());
}

AuthenticatedSeed ShuffleSeed::_validate_pair(std::string_view manifest_bytes, std::string_view ciphertext,
                                              std::string_view metadata_bytes) const {
  return shuffle_seed_state::validate_shuffle_seed_pair(manifest_bytes, ciphertext, metadata_bytes,
                                                        _wallet_secret());
}

AuthenticatedSeed ShuffleSeed::_validate_shuffle_seed_at_root(const std::string& root_dir,
                                                              std::string_view manifest_bytes) const {
  return as_sync_error([&] {
    const client_manifest::PinnedRoot root(root_dir);
    const std::string ciphertext =
        root.read_regular_file(SHUFFLE_SEED_FILE, "staged shuffle seed ciphertext");
    const std::string metadata_bytes =
        root.read_regular_file(SHUFFLE_SEED_METADATA_FILE, "staged shuffle seed metadata");
    const AuthenticatedSeed authenticated = _validate_pair(manifest_bytes, ciphertext, metadata_bytes);
    root.assert_root_unchanged();
    return authenticated;
  });
}

bool ShuffleSeed::_local_pair_authenticates(const std::string& root_dir,
                                            std::string_view manifest_bytes) const {
  const auto download_again = [](const std::exception& failure) {
    log::warning("Local shuffle seed pair failed authentication; re-downloading: %s", failure.what());
    return false;
  };
  try {
    _validate_shuffle_seed_at_root(root_dir, manifest_bytes);
    return true;
  } catch (const FileNotFoundError& failure) {
    return download_again(failure);
  } catch (const SyncError& failure) {
    return download_again(failure);
  } catch (const ValueError& failure) {
    return download_again(failure);
  }
}

HttpResult ShuffleSeed::_fetch_ciphertext(const Manifest& server_manifest) const {
  const std::string url = _server_url + "/data/shuffle";
  const std::int64_t expected_era_number = to_int(server_manifest.era_number());
  const auto expected_generation = _shuffle_seed_generation_for_manifest(server_manifest);
  const auto expected_source = _shuffle_seed_source_for_manifest(server_manifest);
  // Without a count of its own: a server that keeps sending short answers is left by the stop signal.
  for (std::int64_t attempt = 0;; ++attempt) {
    const double wait_s = _backoff_delay_seconds(attempt);
    HttpResult answer = _http._http_get(url);
    require_success(answer.status);
    _validate_response_era_header(answer.headers, expected_era_number, SHUFFLE_SEED_FILE);
    if (has_seed_length(answer.body)) {
      require_selected_key(answer.headers, expected_generation, expected_source);
      return answer;
    }
    _emit_sync_backoff_wait("shuffle_seed_download", attempt, "partial_transfer", SHUFFLE_SEED_FILE, wait_s,
                            _seams);
    _sleep_for_sync_backoff(wait_s, _seams);
  }
}

bool ShuffleSeed::_download_shuffle_seed(const Manifest& server_manifest,
                                         const std::optional<std::string>& target_data_dir,
                                         const std::string* manifest_bytes) const {
  const std::shared_ptr<const ActiveView> view = _active.get();
  const std::string& target_root = target_data_dir ? *target_data_dir : view->data_dir;
  if (!manifest_bytes) manifest_bytes = view->manifest_bytes.get();
  if (!manifest_bytes) {
    throw SyncError("exact served manifest bytes are required for shuffle seed download");
  }
  if (_local_pair_authenticates(target_root, *manifest_bytes)) return false;

  const std::string ciphertext = _fetch_ciphertext(server_manifest).body;
  const std::string metadata_bytes = as_sync_error(
      [&] { return shuffle_seed_state::build_shuffle_seed_metadata(*manifest_bytes, ciphertext); });
  // Proven before the first write: a pair that does not open never reaches the disk.
  as_sync_error([&] { return _validate_pair(*manifest_bytes, ciphertext, metadata_bytes); });
  write_pair(target_root, ciphertext, metadata_bytes);
  _validate_shuffle_seed_at_root(target_root, *manifest_bytes);
  return true;
}

}  // namespace tidalcrest::sync
