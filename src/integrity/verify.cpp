#include "integrity/verify.hpp"

#include <optional>

#include "rotation/exclusion.hpp"
#include "siblings/distribution/local_cohort.hpp"
#include "siblings/distribution/lock.hpp"
#include "siblings/distribution/sync_backoff.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

using local_cohort::Pin;
using shuffle_seed_state::SHUFFLE_SEED_FILE;
using shuffle_seed_state::SHUFFLE_SEED_METADATA_FILE;

// Runs one check and sorts its failure: what is not there is missing, what cannot be read or differs is
// corrupted.
template <class Check, class Missing, class Corrupted>
void report(const Check& check, const Missing& missing, const Corrupted& corrupted) {
  try {
    check();
  } catch (const FileNotFoundError&) {
    missing();
  } catch (const SyncError&) {
    throw;  // also the one that is an operating-system error
  } catch (const OSError&) {
    corrupted();
  } catch (const TypeError&) {
    corrupted();
  } catch (const ValueError&) {
    corrupted();
  } catch (const LocalCohortError&) {
    corrupted();
  } catch (const ShuffleSeedStateError&) {
    corrupted();
  }
}

class Verification {
 public:
  Verification(const Pin& pinned, VerifyResult& result) : _pinned(pinned), _result(result) {}

  void check_members() {
    const ManifestEntries& entries = _pinned.selection->manifest->entries();
    for (const std::string_view active_path : _pinned.selection->members.active_relative_paths) {
      const std::string file_path(active_path);
      const auto file_info = entries.find(file_path);
      if (file_info && _manifest_file_is_sync_excluded(*file_info)) continue;
      _stop_check();
      report([&] { _pinned.verify_manifest_file_identity(file_path, "active cohort artifact", _stop_check); },
             [&] { add_missing(file_path); }, [&] { add_corrupted(file_path); });
    }
  }

  // The pair is reported together, since neither half can be told to be the bad one.
  void check_seed_pair(const std::function<WalletSecret()>& wallet_secret) {
    const auto ciphertext = read_if_there(SHUFFLE_SEED_FILE, "active shuffle seed ciphertext");
    const auto metadata = read_if_there(SHUFFLE_SEED_METADATA_FILE, "active shuffle seed metadata");
    if (!ciphertext) add_missing(SHUFFLE_SEED_FILE);
    if (!metadata) add_missing(SHUFFLE_SEED_METADATA_FILE);
    if (!ciphertext || !metadata) return;
    const auto pair_is_bad = [&] {
      add_corrupted(SHUFFLE_SEED_FILE);
      add_corrupted(SHUFFLE_SEED_METADATA_FILE);
    };
    report(
        [&] {
          shuffle_seed_state::validate_shuffle_seed_pair(*_pinned.selection->manifest_bytes, *ciphertext,
                                                         *metadata, wallet_secret());
        },
        pair_is_bad, pair_is_bad);
  }

 private:
  std::optional<std::string> read_if_there(const char* path, const char* label) const {
    try {
      return _pinned.root.read_regular_file(path, label);
    } catch (const FileNotFoundError&) {
      return std::nullopt;
    }
  }
  void add_missing(const std::string& path) {
    _result.missing_files.push_back(path);
    _result.valid = false;
  }
  void add_corrupted(const std::string& path) {
    _result.corrupted_files.push_back(path);
    _result.valid = false;
  }

  const Pin& _pinned;
  VerifyResult& _result;
  const sync_backoff::StopCheck _stop_check = sync_backoff::stop_check_of_this_thread();
};

}  // namespace

VerifyResult verify_selected_cohort(const std::string& data_dir,
                                    const std::function<WalletSecret()>& wallet_secret) {
  VerifyResult result;
  const auto selector_is_missing = [&] {
    result.missing_files.emplace_back("manifest.json");
    result.valid = false;
  };
  const auto selector_is_bad = [&] {
    result.corrupted_files.emplace_back("manifest.json");
    result.valid = false;
  };
  report(
      [&] {
        const DistributionLock shared = acquire_distribution_lock(data_dir, /*exclusive=*/false);
        const Pin pinned = local_cohort::pin_active_cohort(data_dir);
        Verification verification(pinned, result);
        verification.check_members();
        verification.check_seed_pair(wallet_secret);
        pinned.root.assert_root_unchanged();
      },
      selector_is_missing, selector_is_bad);
  return result;
}

VerifyResult Verify::verify() const {
  if (!_active.get()->manifest) return {};
  return verify_selected_cohort(_data_dir, [this] { return _shuffle_seed._wallet_secret(); });
}

}  // namespace tidalcrest::sync
