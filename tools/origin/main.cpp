#include <fmt/format.h>

#include <CLI/CLI.hpp>

#include "origin/commands.hpp"

namespace tidalcrest::origin {
namespace {

using sync::Document;

/// A flag that sets one member of the recipe.
template <class Value>
void add_member(CLI::App& command, BuildCommand& build, const char* flag, const char* key, const char* help) {
  command
      .add_option_function<Value>(
          flag, [&build, key](const Value& value) { build.members[key] = value; }, help)
      ->group("Recipe");
}

/// A flag for a range of sizes: one or two numbers.
void add_sizes(CLI::App& command, BuildCommand& build, const char* flag, const char* key, const char* help) {
  command
      .add_option_function<std::vector<std::uint64_t>>(
          flag,
          [&build, key](const std::vector<std::uint64_t>& sizes) {
            build.members[key] = {sizes.front(), sizes.back()};
          },
          help)
      ->expected(1, 2)
      ->group("Recipe");
}

void describe_build(CLI::App& command, BuildCommand& build) {
  command.add_option("OUT", build.out, "Directory of the new distribution")->required();
  command.add_option("--recipe", build.recipe_file,
                     "JSON file with recipe members; the flags below win over it");
  command.add_option("--from-folder", build.from_folder,
                     "Take the files from this folder; their kinds follow from their places");
  command.add_option(
      "--wallet-secret", build.wallet_secret_file,
      "File with the 64 hexadecimal digits that the seed is sealed to (default: made from the number)");
  command.add_option("--data-base-url", build.data_base_url,
                     fmt::format("Data origin that the manifests name (default: {})", DEFAULT_DATA_URL));
  add_member<std::uint64_t>(command, build, "--number", "number", "Everything generated follows from it (1)");
  add_member<std::uint64_t>(command, build, "--market", "market_id", "Market id (1)");
  add_member<std::uint64_t>(command, build, "--era", "era_number", "Era number (1)");
  add_member<std::vector<std::string>>(command, build, "--universes", "universes", "Named universes (u1)");
  add_member<std::uint64_t>(command, build, "--features", "features",
                            "Features per epoch and universe (100)");
  add_sizes(command, build, "--feature-bytes", "feature_bytes",
            "Least and most bytes of a feature (4096 65536)");
  add_member<std::uint64_t>(command, build, "--found-signals", "found_signals",
                            "Found signals per universe (10)");
  add_member<std::uint64_t>(command, build, "--found-strategies", "found_strategies",
                            "Found strategies per universe (3)");
  add_sizes(command, build, "--found-bytes", "found_bytes",
            "Least and most bytes of a found file (1024 8192)");
  add_member<std::vector<std::string>>(command, build, "--vault-modules", "vault_modules",
                                       "Runtime modules (none)");
  add_member<std::vector<std::string>>(command, build, "--platforms", "platforms",
                                       "Platforms of each module (linux_x86_64)");
  add_sizes(command, build, "--module-bytes", "module_bytes",
            "Least and most bytes of a module (16384 65536)");
  add_member<std::uint64_t>(command, build, "--extras", "extras", "Mandatory reference files (2)");
  add_sizes(command, build, "--extra-bytes", "extra_bytes", "Least and most bytes of one (1024 16384)");
}

void describe_evolve(CLI::App& command, EvolveCommand& evolve) {
  command.add_option("OUT", evolve.out, "Directory of the distribution")->required();
  command.add_option("--change", evolve.change, "Files that get new bytes: a number, or a part such as 5%");
  command.add_option("--add", evolve.add, "New features: a number, or a part of the features that are there");
  command.add_option("--remove", evolve.remove, "Features that go away: a number or a part");
  command.add_flag("--next-era", evolve.next_era,
                   "Version 1 of the next era; files stay unless --change says more");
  auto* hold =
      command.add_flag("--hold", evolve.hold, "Write the release, but leave the current one current");
  command.add_flag("--release-held", evolve.release_held, "Make the held release current")->excludes(hold);
  command.add_option("--state", evolve.state, "State of the era")
      ->check(CLI::IsMember({"active", "closing", "between_eras"}));
  command.add_option("--next-closing-at", evolve.next_closing_at, "Announced time of the next close");
  command.add_option("--min-library-version", evolve.min_library_version,
                     "Lowest library version of the era");
  command.footer(
      "Without --state and its companions a new version is always written. A running server takes it up.");
}

void describe_serve(CLI::App& command, ServeCommand& serve) {
  command.add_option("OUT", serve.out, "Directory of the distribution")->required();
  command.add_option("--api-port", serve.api_port,
                     fmt::format("API port, 0 for any (default: {})", DEFAULT_API_PORT));
  command.add_option("--data-port", serve.data_port,
                     "Port of the data origin, 0 for any (default: as built)");
  command.add_option(
      "--data-base-url", serve.data_base_url,
      "Data origin that the manifests name. Without --data-port another server serves OUT there");
  command.add_option("--token-file", serve.token_file, "File with the bearer token (default: OUT/token)");
  command.add_option("--ready-file", serve.ready_file,
                     "Write the addresses here, as JSON, once both ports listen");
  command.add_option("--fault", serve.faults, "A fault, as below; may be given several times")
      ->allow_extra_args(false);
  command.add_flag("-v,--verbose", serve.verbose, "Print every request");
  command.footer(
      "A fault is one text:  PATTERN KIND [count=N|all] [skip=N] [seconds=S] [body=TEXT]\n"
      "  PATTERN  /data/manifest, /data/shuffle, ... at the API; a manifest path or manifest.json at\n"
      "           the data origin; * stands for anything\n"
      "  KIND     status=CODE, body, cut=BYTES, reset=BYTES, stall=BYTES, delay=SECONDS, ignore-range, 416,\n"
      "           wrong-bytes[=BYTES], switch[=BYTES] (the held release becomes current in mid-download)\n"
      "  Example: --fault 'features/* cut=1000 count=3' --fault '/data/manifest status=503 "
      "body={\"retryable\":false}'\n"
      "While it runs: GET, POST (one fault a line) and DELETE of /control/faults at the API, with the "
      "token.\n"
      "A data origin other than the one built in rewrites the manifests: clients that have these versions\n"
      "refuse them then, so keep the ports of a distribution that clients keep.");
}

int run(int argc, char** argv) {
  CLI::App app("Builds a distribution, evolves it, and serves it on loopback with faults on request.",
               "tidalcrest-origin");
  app.require_subcommand(1);
  BuildCommand build;
  EvolveCommand evolve;
  ServeCommand serve;
  auto& build_command = *app.add_subcommand("build", "Make a distribution from a recipe or a folder");
  auto& evolve_command =
      *app.add_subcommand("evolve", "Publish the next version, the next era, or a new era state");
  describe_build(build_command, build);
  describe_evolve(evolve_command, evolve);
  describe_serve(*app.add_subcommand("serve", "Serve a distribution until SIGINT or SIGTERM"), serve);
  CLI11_PARSE(app, argc, argv);
  try {
    if (build_command.parsed()) return build.run();
    return evolve_command.parsed() ? evolve.run() : serve.run();
  } catch (const std::exception& failure) {
    fmt::print(stderr, "tidalcrest-origin: {}\n", failure.what());
    return 1;
  }
}

}  // namespace
}  // namespace tidalcrest::origin

// A command described wrongly is a mistake of this program, and ends it.
// NOLINTNEXTLINE(bugprone-exception-escape)
int main(int argc, char** argv) { return tidalcrest::origin::run(argc, argv); }
