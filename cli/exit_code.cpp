#include "exit_code.hpp"

#include <cerrno>
#include <string_view>

#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::cli {
namespace {

template <class Kind>
const Kind* as(const std::exception& failure) {
  return dynamic_cast<const Kind*>(&failure);
}

bool is_disk_full(const std::exception& failure) {
  if (as<sync::DiskSpaceError>(failure) != nullptr) return true;
  if (as<sync::MandatoryArtifactsTooLargeError>(failure) != nullptr) return true;
  if (const auto* os = as<sync::OSError>(failure)) {
    if (os->error_number() == ENOSPC || os->error_number() == EDQUOT) return true;
  }
  const auto* known = as<sync::Failure>(failure);
  if (known == nullptr || !known->cause()) return false;
  try {
    std::rethrow_exception(known->cause());
  } catch (const std::exception& cause) {
    return is_disk_full(cause);
  } catch (...) {
    return false;
  }
}

// Refusals are plain sync or manifest errors; their fixed texts tell them apart.
bool is_refusal(const std::exception& failure) {
  if (as<sync::EraError>(failure) != nullptr) return true;
  const std::string_view text = failure.what();
  if (as<sync::ManifestError>(failure) != nullptr) {
    return text.find("market_id must exactly match configured market_id=") != std::string_view::npos;
  }
  return as<sync::SyncError>(failure) != nullptr && text.starts_with("Refusing ");
}

}  // namespace

ExitCode exit_code_for(const std::exception& failure) {
  if (as<sync::SyncBackoffCancelled>(failure) != nullptr) return EXIT_INTERRUPTED;
  if (is_disk_full(failure)) return EXIT_DISK_SPACE;
  if (is_refusal(failure)) return EXIT_REFUSED;
  if (as<sync::ConnectionError>(failure) != nullptr) return EXIT_UNAVAILABLE;
  return EXIT_FAILED;
}

}  // namespace tidalcrest::cli
