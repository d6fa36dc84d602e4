#include "core/consumer_count.hpp"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "host/failures.hpp"
#include "host/integer.hpp"
#include "host/log.hpp"

namespace tidalcrest::sync {
namespace {

std::string read_text(const std::string& path) {
  std::ifstream file(path);
  std::ostringstream text;
  text << file.rdbuf();
  if (!file) throw_os_error(errno != 0 ? errno : EIO, path);
  return text.str();
}

}  // namespace

ConsumerCount::ConsumerCount(const std::string& data_dir)
    : _consumer_count_path((std::filesystem::path(data_dir) / CONSUMER_COUNT_FILENAME).string()) {
  std::error_code ignored;
  if (!std::filesystem::exists(_consumer_count_path, ignored)) return;
  try {
    _consumer_count = to_int(std::string_view(read_text(_consumer_count_path)));
  } catch (const std::exception& failure) {
    log::warning("Failed to read consumer count: %s", failure.what());
  }
}

void ConsumerCount::set(std::int64_t count) {
  _consumer_count = count;
  _persist_consumer_count();
}

void ConsumerCount::_persist_consumer_count() const {
  try {
    errno = 0;
    std::ofstream file(_consumer_count_path, std::ios::trunc);
    file << _consumer_count;
    file.close();
    if (!file) throw_os_error(errno != 0 ? errno : EIO, _consumer_count_path);
  } catch (const std::exception& failure) {
    log::warning("Failed to persist consumer count: %s", failure.what());
  }
}

}  // namespace tidalcrest::sync
