#include "siblings/telemetry/logging_style.hpp"

#include "host/json.hpp"
#include "host/log.hpp"
#include "host/never_destroyed.hpp"

namespace tidalcrest::sync::logging_style {
namespace {

LogLevel level_of(const std::string& word) {
  for (const LogLevel level : {LogLevel::debug, LogLevel::info, LogLevel::warning}) {
    if (word == log_level_name(level)) return level;
  }
  return LogLevel::error;
}

class BuiltIn final : public Module {
 public:
  void log_library_surface_event(const std::string& title, const std::string& level,
                                 const SurfaceEvent& event) override {
    const Document fields = {
        {"title", title},
        {"level", level},
        {"sub_service", event.sub_service},
        {"component", event.component},
        {"metadata", event.metadata},
        {"source_function", event.source_function},
        {"source_file", event.source_file},
        {"source_line", event.source_line},
    };
    const Document extra = {{"tidalcrest_surface_event", fields}};
    log::emit(level_of(level), "tidalcrest_surface_event " + dump_json(fields, {.sort_keys = true}), &extra);
  }
};

}  // namespace

ModuleSeam<Module>& module_seam() {
  static auto& seam = never_destroyed<ModuleSeam<Module>>(std::make_shared<BuiltIn>());
  return seam;
}

void log_library_surface_event(const std::string& title, const std::string& level,
                               const SurfaceEvent& event) {
  module_seam().current()->log_library_surface_event(title, level, event);
}

}  // namespace tidalcrest::sync::logging_style
