#pragma once

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>

namespace tidalcrest::sync::testing {

/// A directory for one test, removed with everything in it.
class TempDir {
 public:
  TempDir() {
    std::string name = (std::filesystem::temp_directory_path() / "tidalcrest-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("no temporary directory");
    _path = name;
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  /// Threads that end by themselves may still be making and removing files in it: tried again, for two
  /// seconds.
  ~TempDir() {
    std::error_code failure;
    for (int attempt = 0; attempt < 200; ++attempt) {
      std::filesystem::remove_all(_path, failure);
      if (!failure) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }

  std::string path() const { return _path.string(); }
  std::string path(const std::string& name) const { return (_path / name).string(); }
  bool has(const std::string& name) const { return std::filesystem::exists(_path / name); }
  void remove(const std::string& name) const { std::filesystem::remove_all(_path / name); }
  void write(const std::string& name, const std::string& bytes) const {
    std::filesystem::create_directories((_path / name).parent_path());
    std::ofstream(_path / name, std::ios::binary) << bytes;
  }
  std::string read(const std::string& name) const {
    std::ifstream in(_path / name, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }

 private:
  std::filesystem::path _path;
};

}  // namespace tidalcrest::sync::testing
