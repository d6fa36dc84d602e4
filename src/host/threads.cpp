#include "host/threads.hpp"

#include <pthread.h>

#include <algorithm>

namespace tidalcrest::sync {

void set_thread_name(const std::string& name) {
  pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
}

unsigned usable_cores() noexcept { return std::max(1u, std::thread::hardware_concurrency()); }

}  // namespace tidalcrest::sync
