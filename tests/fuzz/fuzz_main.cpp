// The fuzzing program: TIDALCREST_FUZZ_TARGET names the target, the arguments are libFuzzer's.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "fuzz/targets.hpp"
#include "tidalcrest/sync/log.hpp"

namespace {

const tidalcrest::fuzz::Target& chosen_target() {
  tidalcrest::sync::set_log_sink([](const tidalcrest::sync::LogRecord&) {});
  const char* name = std::getenv("TIDALCREST_FUZZ_TARGET");
  for (const auto& target : tidalcrest::fuzz::targets()) {
    if (name != nullptr && target.name == name) return target;
  }
  std::fputs("TIDALCREST_FUZZ_TARGET must name one of:", stderr);
  for (const auto& known : tidalcrest::fuzz::targets()) std::fprintf(stderr, " %s", known.name.c_str());
  std::fputs("\n", stderr);
  std::exit(2);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const auto& target = chosen_target();
  try {
    tidalcrest::fuzz::feed(target, {reinterpret_cast<const char*>(data), size});
  } catch (const std::exception& finding) {
    std::fprintf(stderr, "finding: %s\n", finding.what());
    std::abort();
  }
  return 0;
}
