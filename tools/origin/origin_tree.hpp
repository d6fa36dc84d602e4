#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

#include "origin/manifest_builder.hpp"

namespace tidalcrest::origin {

/// What the server says at present. Empty text stands for null.
struct OriginState {
  std::int64_t market_id = 1;
  std::uint64_t number = 0;  ///< everything generated follows from it
  std::string current;       ///< name of the release that is served
  std::string held;          ///< a release that is written and waits to become current
  std::int64_t era_number = 1;
  std::string era_state = "active";  ///< "active", "closing" or "between_eras"
  std::string next_closing_at;
  std::string min_library_version = "0.0.0";
  std::string data_url;  ///< the data origin; every manifest's base_url is below it
};

/// A release as it stands on the disk.
struct Release {
  std::string name;
  std::filesystem::path directory;  ///< its files and its `manifest.json`
  std::string manifest_bytes;
  Document manifest;
};

/// A distribution on the disk, made so that any static file server can serve the data origin from its root:
///
///     state.json                       which release is current, and the state of the era
///     token, wallet_secret.hex         what a client needs to be let in and to open the seed
///     releases/{name}/...              the files of one release and its manifest.json; never changed, and
///                                      hard links where a release shares a file with the one before
///     api/{name}/version.json          answer of the version probe
///     api/{name}/shuffle_seed.enc      the sealed seed
///
/// A release becomes visible by one rename of its directory, and current by one rename of `state.json`.
/// Several processes may use one tree: changes of the state are made under a file lock.
class OriginTree {
 public:
  /// Makes an empty tree; `wallet_secret` (32 bytes) is derived from the number when empty. Throws
  /// `ValueError` when the directory holds a tree already.
  static OriginTree create(const std::filesystem::path& root, OriginState state,
                           std::string wallet_secret = {});
  /// Opens a tree. Throws `FileNotFoundError` when there is none.
  explicit OriginTree(std::filesystem::path root);

  const std::filesystem::path& root() const noexcept { return _root; }
  std::filesystem::path state_path() const { return _root / "state.json"; }
  OriginState state() const;
  void update_state(const std::function<void(OriginState&)>& change) const;
  std::string token() const;
  std::string wallet_secret() const;

  /// Writes a release without making it current. Files kept from the release before are linked, and so is a
  /// file whose bytes have not changed.
  Release add_release(const ManifestBuilder& content) const;
  /// Makes a release current, and its era with it.
  void make_current(const std::string& name) const;
  void hold(const std::string& name) const;
  Release release(const std::string& name) const;
  std::string manifest_bytes(const std::string& name) const;
  std::filesystem::path release_directory(const std::string& name) const { return _root / "releases" / name; }
  std::filesystem::path api_directory(const std::string& name) const { return _root / "api" / name; }

  /// Points every manifest to another data origin. Their bytes change, so a client that has one of these
  /// releases will refuse it at the same version.
  void move_data_origin(const std::string& data_url) const;

 private:
  void _write_api_documents(const ReleaseIdentity& release, const std::string& name,
                            const std::string& manifest_bytes) const;
  std::filesystem::path _root;
};

}  // namespace tidalcrest::origin
