#include "artifacts/functions_file.hpp"

#include <fmt/format.h>

#include "artifacts/manifest_entry.hpp"
#include "artifacts/retired_tokens.hpp"
#include "artifacts/wrapped_failures.hpp"
#include "host/digest.hpp"
#include "host/equality.hpp"
#include "host/integer.hpp"
#include "host/json.hpp"
#include "host/text.hpp"
#include "siblings/distribution/contained_files.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

constexpr const char* FUNCTIONS_FILE = "functions.json";

ManifestEntry require_declaration(const Manifest& manifest) {
  const Document& pointer = manifest.functions();
  if (!host_equal(pointer, FUNCTIONS_FILE)) throw SyncError("manifest is missing functions.json pointer");
  const ManifestEntry entry(manifest, FUNCTIONS_FILE);
  if (!entry.exists()) throw SyncError("manifest files[\"functions.json\"] must be an object");
  if (!host_equal(entry.value("kind"), "functions")) {
    throw SyncError("manifest files[\"functions.json\"].kind must be functions");
  }
  return entry;
}

std::string read_functions_file(const std::string& data_dir) {
  return wrap_unusable("functions.json is not readable", [&] {
    try {
      return client_manifest::read_contained_regular_file(data_dir, FUNCTIONS_FILE, FUNCTIONS_FILE);
    } catch (const FileNotFoundError&) {
      throw SyncError(fmt::format("functions.json is missing: {}", FUNCTIONS_FILE));
    }
  });
}

void require_declared_bytes(const ManifestEntry& entry, const std::string& bytes) {
  const Document size = entry.value("size_bytes");
  if (!size.is_null() && to_int(size) != static_cast<std::int64_t>(bytes.size())) {
    throw IntegrityError("functions.json size_bytes mismatch");
  }
  // This file alone may be declared with white space around its digest and in upper case.
  const std::string expected_sha = text::lower(text::strip(entry.text("sha256")));
  if (expected_sha.empty()) throw SyncError("manifest files[\"functions.json\"].sha256 is required");
  if (sha256_hex(bytes) != expected_sha) throw IntegrityError("functions.json sha256 mismatch");
}

Document parse_functions(const std::string& bytes) {
  try {
    return parse_json(bytes);
  } catch (const std::exception& failure) {
    throw SyncError(fmt::format("functions.json is not valid JSON: {}", failure.what()));
  }
}

}  // namespace

Document _validate_functions_file(const std::string& data_dir, const Manifest& manifest) {
  const ManifestEntry entry = require_declaration(manifest);
  const std::string bytes = read_functions_file(data_dir);
  require_declared_bytes(entry, bytes);
  Document document = parse_functions(bytes);
  if (!document.is_object()) throw SyncError("functions.json must contain a JSON object");
  const Document* const declared_era = find_member(document, "era_number");
  const Document era = declared_era ? *declared_era : Document();
  const std::int64_t expected_era = to_int(manifest.era_number());
  if (!host_equal(era, expected_era)) {
    throw EraError(fmt::format("functions.json era_number={} does not match manifest era_number={}",
                               text::str(era), expected_era));
  }
  _validate_no_retired_function_tokens(document);
  return document;
}

}  // namespace tidalcrest::sync
