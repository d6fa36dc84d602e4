#include "origin/origin.hpp"

#include <cerrno>
#include <cstdlib>

#include "host/failures.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::origin {
namespace {

std::filesystem::path make_temporary_directory() {
  auto name = (std::filesystem::temp_directory_path() / "tidalcrest-origin-XXXXXX").string();
  if (::mkdtemp(name.data()) == nullptr) sync::throw_os_error(errno, name);
  return name;
}

}  // namespace

Origin::Origin(std::int64_t market_id, std::uint64_t number) : _root(make_temporary_directory()) {
  OriginState state;
  state.market_id = market_id;
  state.number = number;
  _service = std::make_unique<OriginService>(OriginTree::create(_root, state));
  tree().update_state([&](OriginState& changed) { changed.data_url = data_url(); });
}

Origin::~Origin() {
  _service.reset();
  std::error_code ignored;
  std::filesystem::remove_all(_root, ignored);
}

Release Origin::publish(const ManifestBuilder& content) {
  auto release = tree().add_release(content);
  tree().make_current(release.name);
  return release;
}

Release Origin::prepare(const ManifestBuilder& content) {
  auto release = tree().add_release(content);
  tree().hold(release.name);
  return release;
}

void Origin::release_held() {
  const auto held = tree().state().held;
  if (held.empty()) throw sync::ValueError("no release is held");
  tree().make_current(held);
}

Release Origin::current() const { return tree().release(tree().state().current); }

void Origin::set_era_state(const std::string& state, const std::string& next_closing_at) {
  tree().update_state([&](OriginState& changed) {
    changed.era_state = state;
    changed.next_closing_at = next_closing_at;
  });
}

void Origin::set_era_number(std::int64_t era_number) {
  tree().update_state([&](OriginState& changed) { changed.era_number = era_number; });
}

void Origin::set_min_library_version(const std::string& version) {
  tree().update_state([&](OriginState& changed) { changed.min_library_version = version; });
}

void Origin::on_request(const std::string& pattern, std::function<void()> call) {
  fault(pattern, {.kind = Fault::Kind::CALL, .call = std::move(call)});
}

std::vector<OriginRequest> Origin::requests(const std::string& pattern) const {
  std::vector<OriginRequest> found;
  for (auto& request : _service->requests()) {
    if (glob_matches(pattern, request.resource)) found.push_back(std::move(request));
  }
  return found;
}

std::vector<std::string> Origin::resources_asked(const std::string& pattern) const {
  std::vector<std::string> resources;
  for (const auto& request : requests(pattern)) resources.push_back(request.resource);
  return resources;
}

std::vector<std::string> Origin::ranges_asked(const std::string& pattern) const {
  std::vector<std::string> ranges;
  for (const auto& request : requests(pattern)) ranges.push_back(request.request.header("Range"));
  return ranges;
}

}  // namespace tidalcrest::origin
