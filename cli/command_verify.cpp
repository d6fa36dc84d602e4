#include <fmt/format.h>

#include "commands.hpp"
#include "run.hpp"
#include "tidalcrest/sync/data_directory.hpp"
#include "units.hpp"

namespace tidalcrest::cli {
namespace {

using sync::Document;

struct VerifyArguments {
  CommonArguments common;
  std::string wallet_secret_file;
};

void report(const sync::VerifyResult& result, const sync::VerifiedActiveCohortSnapshot& cohort) {
  for (const auto& path : result.missing_files) fmt::print("missing    {}\n", path);
  for (const auto& path : result.corrupted_files) fmt::print("corrupted  {}\n", path);
  if (result.valid) {
    fmt::print("Every byte is as published.\n{}\n", cohort.root_dir());
  } else {
    const auto damaged =
        static_cast<std::int64_t>(result.missing_files.size() + result.corrupted_files.size());
    fmt::print("{} damaged; `tidalcrest-sync repair` with the paths above brings them back.\n",
               counted(damaged, "file"));
  }
}

ExitCode verify(const VerifyArguments& arguments, Display& display) {
  const auto wallet_secret = wallet_secret_supplier(arguments.wallet_secret_file);
  const sync::DataDirectory directory(arguments.common.data_dir);
  wait_for_other_processes(arguments.common, display);
  const auto cohort = directory.active_cohort_snapshot();
  display.on_phase("measuring every file");
  const sync::VerifyResult result = directory.verify(wallet_secret);
  display.finish();
  if (arguments.common.json) {
    print_json({{"ok", result.valid},
                {"root_dir", cohort.root_dir()},
                {"missing_files", result.missing_files},
                {"corrupted_files", result.corrupted_files}});
  } else {
    report(result, cohort);
  }
  return result.valid ? EXIT_IN_STEP : EXIT_FAILED;
}

}  // namespace

void add_verify_command(CLI::App& app, int& exit_code) {
  auto* command = app.add_subcommand(
      "verify",
      "Measure every published file again and open the shuffle seed; changes nothing, asks no server");
  command->footer("Exit code 1 when a file is missing or differs; their paths are printed.");
  auto arguments = std::make_shared<VerifyArguments>();
  arguments->common.add_to(*command);
  add_wallet_secret_file(*command, arguments->wallet_secret_file);
  command->callback([arguments, &exit_code] {
    exit_code =
        run_command(arguments->common, [&](const auto& display) { return verify(*arguments, *display); });
  });
}

}  // namespace tidalcrest::cli
