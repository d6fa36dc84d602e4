#include "siblings/deployment/deployment.hpp"

#include <fmt/format.h>

#include <chrono>
#include <filesystem>

#include "host/child_process.hpp"
#include "host/log.hpp"
#include "host/mutex.hpp"
#include "host/never_destroyed.hpp"
#include "siblings/deployment/version.hpp"

namespace tidalcrest::sync::deployment {
namespace {

constexpr const char* LIBRARY_VERSION = "0.0.3";
constexpr const char* WHEEL_PREFIX = "tidalcrest-";

struct CachedWheel {
  std::string version;
  std::string path;
};

// The version field of "tidalcrest-{version}-*.whl"; absent for every other file.
std::optional<std::string> wheel_version(const std::string& file_name) {
  if (!file_name.starts_with(WHEEL_PREFIX) || !file_name.ends_with(".whl")) return std::nullopt;
  const auto start = std::string(WHEEL_PREFIX).size();
  const auto end = file_name.find('-', start);
  if (end == std::string::npos) return std::nullopt;
  std::string version = file_name.substr(start, end - start);
  try {
    compare_version_texts(version, version);
  } catch (const ValueError& failure) {
    log::debug("Ignoring wheel %s: %s", file_name, failure.what());
    return std::nullopt;
  }
  return version;
}

std::optional<CachedWheel> newest_wheel(const std::string& directory) {
  std::optional<CachedWheel> newest;
  if (directory.empty()) return newest;
  try {
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
      const auto version = wheel_version(entry.path().filename().string());
      if (!version || !entry.is_regular_file()) continue;
      if (!newest || compare_version_texts(*version, newest->version) > 0) {
        newest = CachedWheel{*version, entry.path().string()};
      }
    }
  } catch (const std::filesystem::filesystem_error& failure) {
    throw ConnectionError(fmt::format("wheel cache {}: {}", directory, failure.code().message()));
  }
  return newest;
}

class BuiltIn final : public Module {
 public:
  std::string current_version() override { return LIBRARY_VERSION; }

  int compare_versions(const std::string& first, const std::string& second) override {
    return compare_version_texts(first, second);
  }

  std::optional<std::string> check_update(const std::string& current_version) override {
    const auto newest = newest_wheel(_current_settings().wheel_cache_dir);
    if (!newest || compare_version_texts(newest->version, current_version) <= 0) return std::nullopt;
    return newest->version;
  }

  UpdateResult auto_update(const std::string& version) override {
    const Settings settings = _current_settings();
    try {
      const auto newest = newest_wheel(settings.wheel_cache_dir);
      if (!newest || compare_version_texts(newest->version, version) < 0) {
        return {.success = false, .warning = fmt::format("no local wheel of version {} or above", version)};
      }
      return _install(*newest, settings);
    } catch (const std::exception& failure) {
      return {.success = false, .warning = failure.what()};
    }
  }

  void configure(Settings settings) {
    const MutexLock lock(_mutex);
    _settings = std::move(settings);
  }

 private:
  Settings _current_settings() {
    const MutexLock lock(_mutex);
    return _settings;
  }

  // The installer's own output stays out of the result: it may quote addresses with credentials in them.
  static UpdateResult _install(const CachedWheel& wheel, const Settings& settings) {
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::duration<double>(settings.installer_timeout_seconds);
    ChildCommand command{
        .arguments = settings.installer_command,
        .output_descriptor = {},
        .stop_requested = [deadline] { return std::chrono::steady_clock::now() >= deadline; },
        .ends_with_caller = false};
    command.arguments.push_back(wheel.path);
    const ChildResult ended = run_child(command);
    if (ended.stopped) {
      return {.success = false,
              .warning = fmt::format("installer did not end within {:g} seconds",
                                     settings.installer_timeout_seconds)};
    }
    if (ended.exit_code != 0) {
      return {.success = false,
              .warning = fmt::format("installer ended with status {} for {}", ended.exit_code, wheel.path)};
    }
    log::info("Installed tidalcrest %s; it takes effect when the process restarts", wheel.version);
    return {.success = true, .warning = std::nullopt};
  }

  Mutex _mutex;
  Settings _settings GUARDED_BY(_mutex);
};

const std::shared_ptr<BuiltIn>& built_in() {
  static const auto& module = never_destroyed<std::shared_ptr<BuiltIn>>(std::make_shared<BuiltIn>());
  return module;
}

}  // namespace

ModuleSeam<Module>& module_seam() {
  static auto& seam = never_destroyed<ModuleSeam<Module>>(built_in());
  return seam;
}

std::string _current_version() { return module_seam().current()->current_version(); }

int _compare_versions(const std::string& first, const std::string& second) {
  return module_seam().current()->compare_versions(first, second);
}

std::optional<std::string> check_update(const std::string& current_version) {
  return module_seam().current()->check_update(current_version);
}

UpdateResult auto_update(const std::string& version) { return module_seam().current()->auto_update(version); }

void configure(Settings settings) { built_in()->configure(std::move(settings)); }

}  // namespace tidalcrest::sync::deployment
