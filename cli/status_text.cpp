#include "status_text.hpp"

#include <fmt/format.h>

#include <cstdint>

#include "units.hpp"

namespace tidalcrest::cli {
namespace {

using sync::Document;

std::string line(const std::string& name, const std::string& value) {
  return fmt::format("{:<13}{}\n", name, value);
}

std::int64_t number(const Document& object, const char* key) {
  const auto& value = object.at(key);
  return value.is_number() ? value.get<std::int64_t>() : 0;
}

std::string count(const Document& object, const char* key) { return count_text(number(object, key)); }
std::string bytes(const Document& object, const char* key) {
  return bytes_text(static_cast<double>(number(object, key)));
}
std::string plain(const Document& value) {
  return value.is_string() ? value.get<std::string>() : value.dump();
}

std::string cohort_lines(const Document& status) {
  const Document& cohort = status.at("cohort");
  if (cohort.is_null()) {
    return line("cohort", status.at("state") == "damaged" ? "damaged" : "nothing is published yet");
  }
  return line("cohort", fmt::format("era {}, version {}, market {}", plain(cohort.at("era_number")),
                                    plain(cohort.at("version")), plain(cohort.at("market_id")))) +
         line("identity", plain(cohort.at("manifest_sha256"))) + line("root", plain(cohort.at("root_dir"))) +
         line("members", fmt::format("{}, {} (the manifest names {} files)", count(cohort, "members"),
                                     bytes(cohort, "member_bytes"), count(cohort, "manifest_files")));
}

std::string rotation_line(const Document& rotation) {
  if (rotation.is_null()) return line("rotation", "unknown");
  if (rotation.at("state") == "uninitialized") return line("rotation", "not yet initialised");
  std::string text = fmt::format("{}, generation {}: {} of {} features held", plain(rotation.at("state")),
                                 plain(rotation.at("generation")), count(rotation, "selected_feature_count"),
                                 count(rotation, "eligible_feature_count"));
  if (const auto missing = number(rotation, "missing_active_path_count"); missing > 0) {
    text += fmt::format(", {} missing on disk", count_text(missing));
  }
  if (const auto& next = rotation.at("next_rotation_at"); next.is_string()) {
    text += fmt::format(", next {}{}", plain(next), rotation.at("next_rotation_due") == true ? " (due)" : "");
  }
  return line("rotation", text);
}

std::string progress_text(const Document& progress) {
  const std::string what = progress.at("version").is_null()
                               ? "a sync"
                               : fmt::format("a sync of era {}, version {}", plain(progress.at("era_number")),
                                             plain(progress.at("version")));
  const std::string arrived =
      progress.at("files").is_null()
          ? ""
          : fmt::format(": {} of {} files, {} of {}", count(progress, "files_arrived"),
                        count(progress, "files"), bytes(progress, "bytes_arrived"), bytes(progress, "bytes"));
  const Document& backoff = progress.at("backoff");
  if (!backoff.is_object()) return what + arrived;
  return fmt::format("{}{}; waiting {} before attempt {} ({})", what, arrived,
                     duration_text(backoff.value("wait_seconds", 0.0)),
                     backoff.value("attempt", std::int64_t{0}) + 1, backoff.value("reason", ""));
}

std::string work_line(const Document& status) {
  const Document& progress = status.at("progress");
  if (status.at("busy") != true) {
    if (progress.is_null()) return line("at work", "nobody");
    return line("at work",
                "nobody; " + progress_text(progress) + " was cut off, and the next one continues it");
  }
  return line("at work", progress.is_null() ? "another process" : progress_text(progress));
}

}  // namespace

std::string status_text(const Document& status) {
  std::string text = line("directory", plain(status.at("data_dir"))) + cohort_lines(status);
  const Document& generations = status.at("generations");
  text += line("generations", fmt::format("{} complete, {} unfinished", count(generations, "complete"),
                                          count(generations, "unfinished")));
  text += rotation_line(status.at("rotation"));
  if (!status.at("consumers").is_null()) text += line("consumers", count(status, "consumers"));
  text += work_line(status);
  if (const Document& transition = status.at("transition"); !transition.is_null()) {
    text += line("transition", "marked by process " + plain(transition.at("process_id")));
  }
  for (const auto& problem : status.at("problems")) text += line("problem", plain(problem));
  return text;
}

}  // namespace tidalcrest::cli
