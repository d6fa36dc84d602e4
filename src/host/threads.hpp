#pragma once

#include <string>
#include <thread>

namespace tidalcrest::sync {

/// Names the calling thread as debuggers show it (cut to the platform's 15 characters).
void set_thread_name(const std::string& name);

/// Number of threads worth using for work that keeps a core busy; at least 1.
unsigned usable_cores() noexcept;

}  // namespace tidalcrest::sync
