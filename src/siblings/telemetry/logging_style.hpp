#pragma once

#include <cstdint>
#include <string>

#include "host/module_seam.hpp"
#include "tidalcrest/sync/document.hpp"

/// Reports of what happened at the library's surface.
namespace tidalcrest::sync::logging_style {

struct SurfaceEvent {
  std::string sub_service;
  std::string component;
  Document metadata;
  std::string source_function;
  std::string source_file;
  std::int64_t source_line = 0;
};

/// The module as the sync module reaches it; the host can put its own in its place at run time.
class Module {
 public:
  virtual ~Module() = default;
  virtual void log_library_surface_event(const std::string& title, const std::string& level,
                                         const SurfaceEvent& event) = 0;
};

ModuleSeam<Module>& module_seam();

/// `level` is "debug", "info", "warning" or "error". The built-in module writes one line to the logger, with
/// the event as its structured attachment.
void log_library_surface_event(const std::string& title, const std::string& level, const SurfaceEvent& event);

}  // namespace tidalcrest::sync::logging_style
