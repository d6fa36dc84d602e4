#pragma once

#include "support/network.hpp"

namespace tidalcrest::sync::testing {

/// Bytes of which no two neighbouring stretches are equal.
inline std::string pattern_bytes(std::size_t size) {
  std::string bytes;
  for (std::size_t i = 0; i < size; ++i) bytes += static_cast<char>('!' + (i * 7 + i / 90) % 90);
  return bytes;
}

/// One downloader that asks in small pieces.
class DownloadFixture : public ::testing::Test, public Network {
 public:
  static constexpr std::int64_t CHUNK_BYTES = 40;

  DownloadFixture() { knobs.set(nullptr, CHUNK_BYTES, nullptr); }

  static std::string url_path(const std::string& path) { return "/data/releases/" + path; }
  void download(const std::string& path, const Document& file_info) {
    downloader._download_file({path, &file_info}, result, options);
  }
  /// Makes the origin say that a later manifest is out.
  void supersede() {
    options.generation.version = 10;
    options.generation.era_number = 5;
    server.script("/data/manifest/version",
                  {Reply{.body = R"({"market_id": 1, "version": 11, "era_number": 5})"}});
  }
  std::vector<std::string> ranges_asked(const std::string& path) const {
    return server.ranges_asked(url_path(path));
  }

  SyncResult result;
  DownloadOptions options{.generation = {server.url() + "/data/releases", {}, {}}};
};

}  // namespace tidalcrest::sync::testing
