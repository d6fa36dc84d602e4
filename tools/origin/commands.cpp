#include "origin/commands.hpp"

#include <fmt/format.h>
#include <unistd.h>

#include <cstdio>

#include "host/endpoint.hpp"
#include "host/json.hpp"
#include "host/text.hpp"
#include "origin/disk.hpp"
#include "origin/evolution.hpp"
#include "origin/origin_service.hpp"
#include "origin/origin_tree.hpp"
#include "origin/recipe.hpp"
#include "origin/shutdown_signal.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::origin {
namespace {

namespace fs = std::filesystem;
using sync::ValueError;

fs::path recipe_path(const OriginTree& tree) { return tree.root() / "recipe.json"; }

void print_release(const char* what, const Release& release) {
  std::uint64_t bytes = 0;
  const auto& files = release.manifest.at("files").get_ref<const Document::object_t&>();
  for (const auto& [path, entry] : files) bytes += entry.at("size_bytes").get<std::uint64_t>();
  fmt::print("{} {}: {} files, {} bytes, manifest {} bytes\n", what, release.name, files.size(), bytes,
             release.manifest_bytes.size());
}

std::string read_wallet_secret(const std::string& file) {
  if (file.empty()) return {};
  const auto hex = sync::text::strip(disk::read_text(file));
  if (hex.size() != 64 || hex.find_first_not_of("0123456789abcdef") != std::string::npos) {
    throw ValueError("wallet secret: expected 64 lower-case hexadecimal digits in " + file);
  }
  return from_hex(hex);
}

std::string without_trailing_slashes(std::string url) {
  while (url.ends_with('/')) url.pop_back();
  return url;
}

/// The loopback port that a tree's data origin names, absent when it is another server's business.
std::optional<int> loopback_port(const std::string& url) {
  const auto split = sync::split_url(url);
  if (split.scheme != "http" || split.hostname != "127.0.0.1" || split.port.empty()) return std::nullopt;
  return std::stoi(split.port);
}

}  // namespace

int BuildCommand::run() const {
  auto document =
      recipe_file.empty() ? Document::object() : sync::parse_strict_json(disk::read_text(recipe_file));
  if (!document.is_object()) throw ValueError("recipe: expected a JSON object");
  for (const auto& [key, value] : members.get_ref<const Document::object_t&>()) document[key] = value;
  const auto recipe = parse_recipe(sync::dump_json(document));
  auto content = from_folder.empty() ? build_from_recipe(recipe) : build_from_folder(from_folder);

  OriginState state;
  state.market_id = recipe.market_id;
  state.number = recipe.number;
  state.era_number = recipe.era_number;
  state.data_url = without_trailing_slashes(data_base_url.empty() ? DEFAULT_DATA_URL : data_base_url);
  const auto tree = OriginTree::create(out, state, read_wallet_secret(wallet_secret_file));
  disk::write_text(recipe_path(tree), sync::dump_json(recipe_document(recipe)) + "\n");
  const auto release = tree.add_release(content.era(recipe.era_number));
  tree.make_current(release.name);
  print_release("built", release);
  fmt::print("token:         {}\nwallet secret: {}\n", (tree.root() / "token").string(),
             (tree.root() / "wallet_secret.hex").string());
  return 0;
}

int EvolveCommand::run() const {
  const OriginTree tree(out);
  const Evolution evolution{parse_amount(change), parse_amount(add), parse_amount(remove), next_era};
  const bool new_content = evolution.change.value + evolution.add.value + evolution.remove.value > 0;
  const bool changes_state = !state.empty() || !next_closing_at.empty() || !min_library_version.empty();
  if (release_held) {
    const auto held = tree.state().held;
    if (held.empty()) throw ValueError("no release is held");
    tree.make_current(held);
    fmt::print("current: {}\n", held);
  } else if (new_content || next_era || !changes_state) {
    const auto recipe = parse_recipe(disk::read_text(recipe_path(tree)));
    const auto evolved = evolve(tree, recipe, evolution);
    if (hold) {
      tree.hold(evolved.release.name);
    } else {
      tree.make_current(evolved.release.name);
    }
    print_release(hold ? "held" : "current", evolved.release);
    fmt::print("changed {}, added {}, removed {}\n", evolved.changed.size(), evolved.added.size(),
               evolved.removed.size());
  }
  if (!changes_state) return 0;
  tree.update_state([&](OriginState& changed) {
    if (!state.empty()) {
      changed.era_state = state;
      changed.next_closing_at.clear();
    }
    if (!next_closing_at.empty()) changed.next_closing_at = next_closing_at;
    if (!min_library_version.empty()) changed.min_library_version = min_library_version;
  });
  fmt::print("era {}: {}\n", tree.state().era_number, tree.state().era_state);
  return 0;
}

int ServeCommand::run() const {
  const ShutdownSignal
      shutdown;  // before any thread starts, so that all of them leave the signals to this one
  const OriginTree tree(out);
  ServiceOptions options;
  options.record = false;
  options.api_port = api_port.value_or(DEFAULT_API_PORT);
  options.data_port = data_port;
  if (!data_port && data_base_url.empty()) options.data_port = loopback_port(tree.state().data_url);
  if (verbose) {
    options.observer = [](const OriginRequest& seen) {
      const auto range = seen.request.header("Range");
      fmt::print(stderr, "{} {} {}{}{}\n", seen.status, seen.request.method, seen.request.path,
                 range.empty() ? "" : " ", range);
    };
  }
  OriginService service(tree, options);
  for (const auto& fault : faults) {
    auto [pattern, parsed] = parse_fault(fault);
    service.faults().add(pattern, std::move(parsed));
  }
  if (!token_file.empty()) service.set_token(sync::text::strip(disk::read_text(token_file)));

  auto data_url = without_trailing_slashes(data_base_url);
  if (data_url.empty()) data_url = service.data_url().empty() ? tree.state().data_url : service.data_url();
  if (data_url != tree.state().data_url) {
    fmt::print("data origin moves from {}: every manifest is written anew\n", tree.state().data_url);
    tree.move_data_origin(data_url);
  }
  fmt::print("api:  {}\ndata: {}{}\n", service.api_url(), data_url,
             service.data_url().empty() ? " (served elsewhere)" : "");
  std::fflush(stdout);
  if (!ready_file.empty()) {
    const Document ready = {
        {"server_url", service.api_url()},
        {"data_url", data_url},
        {"token_file", token_file.empty() ? (tree.root() / "token").string() : token_file},
        {"wallet_secret_file", (tree.root() / "wallet_secret.hex").string()},
        {"pid", ::getpid()}};
    disk::replace_text(fs::absolute(ready_file), sync::dump_json(ready) + "\n");
  }
  shutdown.wait();
  service.stop();
  fmt::print("stopped\n");
  return 0;
}

}  // namespace tidalcrest::origin
