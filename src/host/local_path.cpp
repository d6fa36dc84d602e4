#include "host/local_path.hpp"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <vector>

#include "host/failures.hpp"
#include "host/text.hpp"

namespace tidalcrest::sync {
namespace {

// Home of the user, or of the running one when the name is empty.
std::optional<std::string> home_of(const std::string& user) {
  if (user.empty()) {
    if (const char* home = std::getenv("HOME")) return home;
  }
  std::vector<char> buffer(16384);
  passwd entry{};
  passwd* found = nullptr;
  const int failure = user.empty() ? getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found)
                                   : getpwnam_r(user.c_str(), &entry, buffer.data(), buffer.size(), &found);
  if (failure != 0 || found == nullptr || found->pw_dir == nullptr) return std::nullopt;
  return found->pw_dir;
}

std::string working_directory() {
  std::error_code failure;
  const auto path = std::filesystem::current_path(failure);
  if (failure) throw_os_error(failure.value(), "working directory");
  return path.string();
}

// Two leading separators are kept as two, as POSIX leaves their meaning to the system; three are one again.
std::string root_prefix(const std::string& path) {
  return path.starts_with("//") && !path.starts_with("///") ? "//" : "/";
}

}  // namespace

std::string join_path(const std::string& directory, const std::string& name) {
  return directory.empty() || directory.ends_with('/') ? directory + name : directory + '/' + name;
}

std::string expand_home(const std::string& path) {
  if (!path.starts_with('~')) return path;
  const auto end = std::min(path.find('/'), path.size());
  auto home = home_of(path.substr(1, end - 1));
  if (!home) return path;
  while (home->ends_with('/')) home->pop_back();
  const std::string expanded = *home + path.substr(end);
  return expanded.empty() ? "/" : expanded;
}

std::string absolute_path(const std::string& path) {
  const std::string full = path.starts_with('/') ? path : join_path(working_directory(), path);
  std::vector<std::string> kept;
  for (auto& segment : text::split(full, "/")) {
    if (segment.empty() || segment == ".") continue;
    if (segment != "..") {
      kept.push_back(std::move(segment));
    } else if (!kept.empty()) {
      kept.pop_back();
    }
  }
  return root_prefix(full) + text::join(kept, "/");
}

}  // namespace tidalcrest::sync
