#pragma once

#include "origin/origin.hpp"
#include "siblings/distribution/sync_backoff.hpp"
#include "support/test.hpp"
#include "tidalcrest/sync/sync.hpp"

namespace tidalcrest::sync::testing {

/// Contents of all regular files below a directory, by relative path.
inline std::map<std::string, std::string> files_below(const std::string& root) {
  std::map<std::string, std::string> files;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
    if (!entry.is_regular_file() || entry.is_symlink()) continue;
    std::ifstream in(entry.path(), std::ios::binary);
    files[std::filesystem::relative(entry.path(), root).generic_string()] =
        std::string(std::istreambuf_iterator<char>(in), {});
  }
  return files;
}

/// A data directory, an origin, and managers between them. Waits of the backoff policy take no time: the
/// clock is the machine's, the sleep is not.
class SyncFixture : public ::testing::Test {
 public:
  SyncFixture() {
    seams.sleep = [](double) {};
  }

  SyncOptions options() {
    SyncOptions options{.data_dir = data.path(), .server_url = origin.server_url()};
    options.token = origin.token();
    options.get_wallet_secret = [secret = origin.wallet_secret()] { return std::optional(secret); };
    return options;
  }
  std::unique_ptr<SyncManager> make_manager() { return std::make_unique<SyncManager>(options(), seams); }

  /// One that has synced this, newly published.
  std::unique_ptr<SyncManager> synced_manager(const origin::ManifestBuilder& content = small_distribution()) {
    origin.publish(content);
    auto manager = make_manager();
    manager->sync();
    return manager;
  }

  /// A distribution of a few small files of every kind.
  static origin::ManifestBuilder small_distribution() {
    return origin::ManifestBuilder{}
        .feature("u1", "signal_is", "alpha__one__x__a", "feature a")
        .feature("u1", "signal_is", "alpha__one__x__b", "feature b")
        .feature("u1", "strategy_is", "alpha__one__x__a", "feature c")
        .found_signal("u1", "s1", "found one")
        .found_strategy("u1", "t1", "found two")
        .file("reference/calendar.bin", "calendar", "reference");
  }

  LogCapture log;
  TempDir data;
  origin::Origin origin;
  Seams seams = Seams::real();
};

}  // namespace tidalcrest::sync::testing
