#include "origin/origin_tree.hpp"

#include "host/digest.hpp"
#include "host/json.hpp"
#include "host/text.hpp"
#include "origin/disk.hpp"
#include "origin/release_writer.hpp"
#include "origin/seed_sealing.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::origin {
namespace {

namespace fs = std::filesystem;

Document text_or_null(const std::string& text) { return text.empty() ? Document() : Document(text); }

std::string text_of(const Document& document, const char* key) {
  const auto* value = sync::find_member(document, key);
  return value == nullptr || value->is_null() ? std::string() : value->get<std::string>();
}

Document document_of(const OriginState& state) {
  return {{"market_id", state.market_id},
          {"number", state.number},
          {"current", text_or_null(state.current)},
          {"held", text_or_null(state.held)},
          {"era_number", state.era_number},
          {"state", state.era_state},
          {"next_closing_at", text_or_null(state.next_closing_at)},
          {"min_library_version", state.min_library_version},
          {"data_url", state.data_url}};
}

OriginState state_of(const Document& document) {
  OriginState state;
  state.market_id = document.at("market_id").get<std::int64_t>();
  state.number = document.at("number").get<std::uint64_t>();
  state.current = text_of(document, "current");
  state.held = text_of(document, "held");
  state.era_number = document.at("era_number").get<std::int64_t>();
  state.era_state = text_of(document, "state");
  state.next_closing_at = text_of(document, "next_closing_at");
  state.min_library_version = text_of(document, "min_library_version");
  state.data_url = text_of(document, "data_url");
  return state;
}

std::string release_name(const ReleaseIdentity& release) {
  return "m" + std::to_string(release.market_id) + "-e" + std::to_string(release.era_number) + "-v" +
         std::to_string(release.version);
}

void write_private(const fs::path& path, const std::string& text) {
  disk::write_text(path, text);
  fs::permissions(path, fs::perms::owner_read | fs::perms::owner_write);
}

/// Era and version as the name tells them; a manifest may be made to say anything.
ReleaseIdentity identity_of_name(const std::string& name) {
  const auto era = name.find("-e");
  const auto version = name.rfind("-v");
  ReleaseIdentity identity;
  identity.era_number = std::stoll(name.substr(era + 2, version - era - 2));
  identity.version = std::stoll(name.substr(version + 2));
  return identity;
}

ReleaseIdentity next_identity(const ManifestBuilder& content, const OriginState& state,
                              const std::string& before) {
  ReleaseIdentity next;
  next.market_id = state.market_id;
  next.era_number = content.era_number().value_or(state.era_number);
  if (!before.empty()) {
    const auto last = identity_of_name(before);
    if (!content.era_number()) next.era_number = last.era_number;
    if (last.era_number == next.era_number) next.version = last.version + 1;
  }
  next.version = content.version_number().value_or(next.version);
  next.base_url = state.data_url + "/releases/" + release_name(next);
  return next;
}

}  // namespace

OriginTree OriginTree::create(const fs::path& root, OriginState state, std::string wallet_secret) {
  if (fs::exists(root / "state.json"))
    throw sync::ValueError(root.string() + " holds a distribution already");
  if (wallet_secret.empty()) wallet_secret = derived_secret(state.number, "wallet secret");
  if (wallet_secret.size() != 32) throw sync::ValueError("wallet_secret must be exactly 32 bytes");
  fs::create_directories(root / "releases");
  write_private(root / "wallet_secret.hex", sync::text::hex(wallet_secret) + "\n");
  write_private(root / "token",
                "token-" + sync::text::hex(derived_secret(state.number, "token")).substr(0, 24) + "\n");
  disk::replace_text(root / "state.json", sync::dump_json(document_of(state)) + "\n");
  return OriginTree(root);
}

OriginTree::OriginTree(fs::path root) : _root(std::move(root)) {
  if (!fs::exists(state_path())) throw sync::FileNotFoundError("no distribution in " + _root.string());
}

OriginState OriginTree::state() const {
  return state_of(sync::parse_strict_json(disk::read_text(state_path())));
}

void OriginTree::update_state(const std::function<void(OriginState&)>& change) const {
  const disk::FileLock lock(_root / ".lock");
  auto state = this->state();
  change(state);
  disk::replace_text(state_path(), sync::dump_json(document_of(state)) + "\n");
}

std::string OriginTree::token() const { return sync::text::strip(disk::read_text(_root / "token")); }

std::string OriginTree::wallet_secret() const {
  return from_hex(sync::text::strip(disk::read_text(_root / "wallet_secret.hex")));
}

Release OriginTree::add_release(const ManifestBuilder& content) const {
  const auto state = this->state();
  const auto& latest = state.held.empty() ? state.current : state.held;
  std::optional<Release> before;
  if (!latest.empty()) before = release(latest);
  const auto identity = next_identity(content, state, latest);
  Release added;
  added.name = release_name(identity);
  added.directory = release_directory(added.name);
  if (fs::exists(added.directory)) throw sync::ValueError("release " + added.name + " is there already");

  const auto aside = _root / "releases" / ("." + added.name + ".part");
  fs::remove_all(aside);
  ReleaseWriter writer(aside, before ? &*before : nullptr);
  Document entries = Document::object();
  for (const auto& [path, source] : content.files_of(identity)) entries[path] = writer.write(path, source);
  added.manifest = content.manifest_of(identity, std::move(entries));
  added.manifest_bytes = sync::dump_json(added.manifest);
  disk::write_text(aside / "manifest.json", added.manifest_bytes);
  _write_api_documents(identity, added.name, added.manifest_bytes);
  fs::rename(aside, added.directory);
  return added;
}

void OriginTree::_write_api_documents(const ReleaseIdentity& release, const std::string& name,
                                      const std::string& manifest_bytes) const {
  const Document answer = {{"version", release.version},
                           {"era_number", release.era_number},
                           {"market_id", release.market_id},
                           {"manifest_sha256", sync::sha256_hex(manifest_bytes)}};
  disk::write_text(api_directory(name) / "version.json", sync::dump_json(answer));
  const auto number = state().number;
  const auto scope = std::to_string(release.market_id) + "|" + std::to_string(release.era_number);
  disk::write_text(api_directory(name) / "shuffle_seed.enc",
                   seal_shuffle_seed(wallet_secret(), release.market_id, release.era_number,
                                     derived_secret(number, "shuffle seed|" + scope),
                                     derived_secret(number, "nonce|" + scope).substr(0, 12)));
}

void OriginTree::make_current(const std::string& name) const {
  const auto era = identity_of_name(name).era_number;
  update_state([&](OriginState& state) {
    state.current = name;
    if (state.held == name) state.held.clear();
    if (state.era_number != era) {
      state.era_state = "active";
      state.next_closing_at.clear();
    }
    state.era_number = era;
  });
}

void OriginTree::hold(const std::string& name) const {
  update_state([&](OriginState& state) { state.held = name; });
}

std::string OriginTree::manifest_bytes(const std::string& name) const {
  return disk::read_text(release_directory(name) / "manifest.json");
}

Release OriginTree::release(const std::string& name) const {
  Release found{name, release_directory(name), manifest_bytes(name), {}};
  found.manifest = sync::parse_json(found.manifest_bytes);
  return found;
}

void OriginTree::move_data_origin(const std::string& data_url) const {
  for (const auto& entry : fs::directory_iterator(_root / "releases")) {
    const auto name = entry.path().filename().string();
    if (name.starts_with(".")) continue;
    auto manifest = release(name).manifest;
    manifest["base_url"] = data_url + "/releases/" + name;
    const auto bytes = sync::dump_json(manifest);
    disk::replace_text(entry.path() / "manifest.json", bytes);
    auto answer = sync::parse_json(disk::read_text(api_directory(name) / "version.json"));
    answer["manifest_sha256"] = sync::sha256_hex(bytes);
    disk::replace_text(api_directory(name) / "version.json", sync::dump_json(answer));
  }
  update_state([&](OriginState& state) { state.data_url = data_url; });
}

}  // namespace tidalcrest::origin
