#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <vector>

#include "host/digest.hpp"
#include "host/failures.hpp"
#include "host/json.hpp"
#include "tidalcrest/sync/log.hpp"
#include "tidalcrest/sync/manifest.hpp"

namespace tidalcrest::sync::artifacts_testing {

inline std::string read_file(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

/// A root directory for one test.
class TempRoot {
 public:
  TempRoot() {
    std::string name = (std::filesystem::temp_directory_path() / "tidalcrest-artifacts-XXXXXX").string();
    if (!mkdtemp(name.data())) throw std::runtime_error("no temporary directory");
    _path = name;
  }
  ~TempRoot() { std::filesystem::remove_all(_path); }
  std::string path() const { return _path.string(); }
  bool has(const std::string& name) const { return std::filesystem::exists(_path / name); }
  void remove(const std::string& name) const { std::filesystem::remove_all(_path / name); }
  void write(const std::string& name, const std::string& bytes) const {
    std::filesystem::create_directories((_path / name).parent_path());
    std::ofstream(_path / name, std::ios::binary) << bytes;
  }
  std::string read(const std::string& name) const { return read_file(_path / name); }

 private:
  std::filesystem::path _path;
};

/// The warnings of one test, in place of the process's log.
class Warnings {
 public:
  Warnings() {
    set_log_sink([this](const LogRecord& record) {
      const std::lock_guard lock(_mutex);
      if (record.level == LogLevel::warning) _messages.push_back(record.message);
    });
  }
  ~Warnings() { set_log_sink({}); }
  std::vector<std::string> messages() const {
    const std::lock_guard lock(_mutex);
    return _messages;
  }

 private:
  mutable std::mutex _mutex;  // guards `_messages`
  std::vector<std::string> _messages;
};

/// "{kind}: {text}" of what a call throws, "nothing" when it returns.
template <class Call>
std::string thrown(Call call) {
  try {
    call();
  } catch (const std::exception& failure) {
    return failure_type_name(failure) + ": " + failure.what();
  }
  return "nothing";
}

/// A manifest entry that declares these bytes.
inline Document entry_for(const std::string& bytes, const std::string& kind) {
  return {{"kind", kind}, {"sha256", sha256_hex(bytes)}, {"size_bytes", bytes.size()}};
}

/// A vocabulary that belongs to era 7 and this universe.
inline Document vocabulary_document(const std::string& universe) {
  return {{"era_number", 7},
          {"named_universe", universe},
          {"features", Document::array()},
          {"metadata", {{"named_universe", universe}, {"n_instruments", 3}}}};
}

inline std::string vocabulary_path(const std::string& universe) {
  return "named_universes/" + universe + "/vocabulary.json";
}

}  // namespace tidalcrest::sync::artifacts_testing
