#include <fmt/format.h>

#include "commands.hpp"
#include "run.hpp"
#include "tidalcrest/sync/data_directory.hpp"
#include "units.hpp"

namespace tidalcrest::cli {
namespace {

using sync::Document;

struct GcArguments {
  CommonArguments common;
  std::int64_t keep = 2;
  bool dry_run = false;
};

Document report_document(const GcArguments& arguments, const sync::CollectionReport& report) {
  Document removed = Document::array();
  for (const auto& entry : report.removed) {
    removed.push_back({{"path", entry.relative_path}, {"why", entry.why}, {"bytes", entry.bytes}});
  }
  return {{"ok", true},
          {"dry_run", arguments.dry_run},
          {"removed", removed},
          {"bytes_freed", report.bytes_freed},
          {"kept", report.kept}};
}

void print_report(const GcArguments& arguments, const sync::CollectionReport& report) {
  for (const auto& entry : report.removed) {
    fmt::print("{}  {}: {}, {}\n", arguments.dry_run ? "would remove" : "removed", entry.relative_path,
               entry.why, bytes_text(static_cast<double>(entry.bytes)));
  }
  fmt::print("{} {}; {} kept\n", bytes_text(static_cast<double>(report.bytes_freed)),
             arguments.dry_run ? "would come free" : "came free",
             counted(static_cast<std::int64_t>(report.kept.size()), "generation"));
}

ExitCode collect(const GcArguments& arguments, Display& display) {
  wait_for_other_processes(arguments.common, display);
  const auto report =
      sync::DataDirectory(arguments.common.data_dir).collect_generations(arguments.keep, arguments.dry_run);
  display.finish();
  if (arguments.common.json) {
    print_json(report_document(arguments, report));
  } else {
    print_report(arguments, report);
  }
  return EXIT_IN_STEP;
}

}  // namespace

void add_gc_command(CLI::App& app, int& exit_code) {
  auto* command = app.add_subcommand("gc", "Make room: remove generations that nobody needs any more");
  command->footer(
      "Every publication leaves the generation before it on disk, so that its readers can go on. This\n"
      "removes generations that are not selected, not pinned by a reader and not among the newest --keep,\n"
      "and what failed syncs left more than a day ago. It waits for a running sync and never runs by\n"
      "itself.");
  auto arguments = std::make_shared<GcArguments>();
  arguments->common.add_to(*command);
  command->add_option("--keep", arguments->keep, "How many of the newest generations stay")
      ->check(CLI::Range(0, 1000000))
      ->capture_default_str();
  command->add_flag("--dry-run", arguments->dry_run, "Only say what would be removed");
  command->callback([arguments, &exit_code] {
    exit_code =
        run_command(arguments->common, [&](const auto& display) { return collect(*arguments, *display); });
  });
}

}  // namespace tidalcrest::cli
