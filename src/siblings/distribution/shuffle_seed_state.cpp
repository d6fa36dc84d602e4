#include "siblings/distribution/shuffle_seed_state.hpp"

#include <fmt/format.h>

#include <memory>
#include <optional>

#include "host/digest.hpp"
#include "host/integer.hpp"
#include "host/json.hpp"
#include "host/mutex.hpp"
#include "host/never_destroyed.hpp"
#include "host/text.hpp"
#include "siblings/distribution/parsed_manifests.hpp"
#include "siblings/distribution/shuffle_seed_cipher.hpp"
#include "tidalcrest/sync/constants.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync::shuffle_seed_state {
namespace {

// What a seed pair has to agree with.
struct ManifestFacts {
  std::string manifest_sha256;
  std::int64_t market_id = 0;
  std::int64_t era_number = 0;
  Document key_generation;
  Document key_source;
};

std::int64_t true_integer(const Document& manifest, const char* key) {
  const Document* value = find_member(manifest, key);
  const auto number = value != nullptr && value->is_number_integer() ? try_int(*value) : std::nullopt;
  if (!number) {
    throw ShuffleSeedStateError(fmt::format("manifest {} must be an integer, got {}", key,
                                            value == nullptr ? "None" : text::repr(*value)));
  }
  return *number;
}

Document value_or_null(const Document& manifest, const char* key) {
  const Document* value = find_member(manifest, key);
  return value == nullptr ? Document() : *value;
}

// The key derivation below belongs to one generation. A manifest that names none means that one.
void require_known_generation(const Document& generation) {
  if (generation.is_null()) return;
  const std::string name = text::strip(text::str(generation));
  if (!name.empty() && name != SHUFFLE_KEY_GENERATION_MARKET_ERA_V1) {
    throw ShuffleSeedStateError(
        fmt::format("manifest shuffle_key_generation {} is not supported", text::repr(name)));
  }
}

ManifestFacts read_facts(std::string_view manifest_bytes, std::string manifest_sha256) {
  SharedManifest parsed;
  try {
    parsed = client_manifest::shared_manifest(manifest_bytes, manifest_sha256, "shuffle seed manifest");
  } catch (const ValueError& failure) {
    throw ShuffleSeedStateError(failure.what());
  }
  const Document& manifest = parsed->head();
  ManifestFacts facts{std::move(manifest_sha256), true_integer(manifest, "market_id"),
                      true_integer(manifest, "era_number"), value_or_null(manifest, "shuffle_key_generation"),
                      value_or_null(manifest, "shuffle_key_source")};
  require_known_generation(facts.key_generation);
  return facts;
}

// A sync asks several times about the same manifest. So the facts of the last manifest are kept under its
// digest, which stands for its exact bytes; the digest is part of the sidecar and is needed each time anyway.
class LastManifest {
 public:
  ManifestFacts facts_of(std::string_view manifest_bytes) {
    std::string sha256 = sha256_hex(manifest_bytes);
    {
      const MutexLock lock(_mutex);
      if (_facts && _facts->manifest_sha256 == sha256) return *_facts;
    }
    ManifestFacts facts = read_facts(manifest_bytes, std::move(sha256));
    const MutexLock lock(_mutex);
    _facts = facts;
    return facts;
  }

 private:
  Mutex _mutex;  // a leaf, never held while parsing
  std::optional<ManifestFacts> _facts GUARDED_BY(_mutex);
};

ManifestFacts manifest_facts(std::string_view manifest_bytes) {
  static LastManifest& last = never_destroyed<LastManifest>();
  return last.facts_of(manifest_bytes);
}

Document sidecar_document(const ManifestFacts& facts, std::string_view ciphertext) {
  return {
      {"schema_version", 1},
      {"manifest_sha256", facts.manifest_sha256},
      {"ciphertext_sha256", sha256_hex(ciphertext)},
      {"ciphertext_size_bytes", static_cast<std::int64_t>(ciphertext.size())},
      {"market_id", facts.market_id},
      {"era_number", facts.era_number},
      {"shuffle_key_generation", facts.key_generation},
      {"shuffle_key_source", facts.key_source},
  };
}

void require_size(std::string_view ciphertext) {
  if (ciphertext.size() != SHUFFLE_SEED_BYTES) {
    throw ShuffleSeedStateError(fmt::format("{} has invalid size: expected {} bytes, got {}",
                                            SHUFFLE_SEED_FILE, SHUFFLE_SEED_BYTES, ciphertext.size()));
  }
}

Document parse_sidecar(std::string_view metadata_bytes) {
  Document sidecar;
  try {
    sidecar = parse_strict_json(metadata_bytes);
  } catch (const ValueError& failure) {
    throw ShuffleSeedStateError(
        fmt::format("{} is not valid JSON: {}", SHUFFLE_SEED_METADATA_FILE, failure.what()));
  }
  if (!sidecar.is_object()) {
    throw ShuffleSeedStateError(fmt::format("{} must contain a JSON object", SHUFFLE_SEED_METADATA_FILE));
  }
  return sidecar;
}

// Every field of the sidecar follows from manifest and ciphertext, so the expected one is built and compared.
void check_sidecar(const Document& sidecar, const Document& expected) {
  for (const auto& [key, value] : expected.get_ref<const Document::object_t&>()) {
    const Document* found = find_member(sidecar, key);
    if (found == nullptr || *found != value) {
      throw ShuffleSeedStateError(fmt::format("{} {} does not match the selected manifest and ciphertext",
                                              SHUFFLE_SEED_METADATA_FILE, key));
    }
  }
  if (sidecar.size() != expected.size()) {
    throw ShuffleSeedStateError(fmt::format("{} has unknown keys", SHUFFLE_SEED_METADATA_FILE));
  }
}

}  // namespace

AuthenticatedSeed validate_shuffle_seed_pair(std::string_view manifest_bytes, std::string_view ciphertext,
                                             std::string_view metadata_bytes,
                                             std::string_view wallet_secret) {
  require_size(ciphertext);
  if (wallet_secret.size() != WALLET_SECRET_BYTES) {
    throw ShuffleSeedStateError(fmt::format("wallet_secret must be exactly {} bytes", WALLET_SECRET_BYTES));
  }
  const ManifestFacts facts = manifest_facts(manifest_bytes);
  check_sidecar(parse_sidecar(metadata_bytes), sidecar_document(facts, ciphertext));
  if (!shuffle_seed_opens(ciphertext, wallet_secret, facts.market_id, facts.era_number)) {
    throw ShuffleSeedStateError(
        fmt::format("{} does not open with this wallet secret for market_id={} era_number={}",
                    SHUFFLE_SEED_FILE, facts.market_id, facts.era_number));
  }
  return {.market_id = facts.market_id, .era_number = facts.era_number};
}

std::string build_shuffle_seed_metadata(std::string_view manifest_bytes, std::string_view ciphertext) {
  require_size(ciphertext);
  return dump_json(sidecar_document(manifest_facts(manifest_bytes), ciphertext), {.sort_keys = true});
}

}  // namespace tidalcrest::sync::shuffle_seed_state
