// What a manifest costs in memory and time: parse, sanitise, look up. Twice the files should take about twice
// the time.
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <vector>

#include "manifest/persistence.hpp"
#include "tidalcrest/sync/manifest.hpp"

namespace {

using namespace tidalcrest::sync;

std::string manifest_text(int files) {
  std::string text =
      R"({"era_number": 1, "version": 1, "market_id": 1, "base_url": "https://data.example/r", "files": {)";
  for (int i = 0; i < files; ++i) {
    text += fmt::format(
        R"({}"features/u1/signal_is/family{}__sub{}__x__{}.arrow": {{"kind": "feature", "sha256": "{:064x}", "size_bytes": {}}})",
        i == 0 ? "" : ", ", i % 97, i % 13, i, i, 4096 + i);
  }
  return text + "}}";
}

double seconds_of(const auto& work) {
  std::vector<double> times;
  for (int round = 0; round < 5; ++round) {
    const auto started = std::chrono::steady_clock::now();
    work();
    times.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count());
  }
  std::sort(times.begin(), times.end());
  return times[times.size() / 2];
}

}  // namespace

int main() {
  fmt::print("{:>9} {:>10} {:>12} {:>12} {:>14}\n", "files", "MiB", "parse s", "sanitise s",
             "100k look-ups s");
  for (const int files : {25000, 50000, 100000, 200000}) {
    const auto text = std::make_shared<const std::string>(manifest_text(files));
    const double parse = seconds_of([&] { _parse_full_distribution_manifest(text, "bench manifest"); });
    const auto parsed = _parse_full_distribution_manifest(text, "bench manifest");
    const double sanitise = seconds_of([&] { Manifest{parsed}; });
    const Manifest manifest{parsed};
    std::size_t found = 0;
    const double look_up = seconds_of([&] {
      for (int i = 0; i < 100000; ++i) {
        const int at = i % files;
        const auto path =
            fmt::format("features/u1/signal_is/family{}__sub{}__x__{}.arrow", at % 97, at % 13, at);
        if (manifest.file_entry(path)) ++found;
      }
    });
    fmt::print("{:>9} {:>10.1f} {:>12.3f} {:>12.3f} {:>14.3f}\n", files,
               static_cast<double>(text->size()) / 1048576, parse, sanitise, look_up);
    if (found != 500000) return 1;
  }
  return 0;
}
