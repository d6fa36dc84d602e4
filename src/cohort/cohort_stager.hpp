#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "artifacts/shuffle_seed.hpp"
#include "artifacts/signals_index.hpp"
#include "artifacts/vocabulary_files.hpp"
#include "cohort/active_view.hpp"
#include "download/parallel_downloader.hpp"
#include "integrity/hash_cache.hpp"
#include "rotation/planner.hpp"

namespace tidalcrest::sync {

/// One generation to stage. It holds of a plan what the staging needs: what a plan knows of each artifact is
/// much memory for as long as a download takes. `result` outlives the call.
struct StagingRequest {
  std::shared_ptr<const Manifest> server_manifest;
  std::shared_ptr<const std::string> served_manifest_bytes;  ///< the identity of the generation
  PathList active_relative_paths;                            ///< the planned members, in plan order
  RotationState candidate_state;                             ///< what is recorded after the publication
  SyncResult& result;
  /// The last veto: throws to stop the publication. Empty for none.
  std::function<void()> pre_publish_check = {};
  /// Members that must be fetched anew.
  std::vector<std::string> force_download_paths = {};
};

/// The only road by which new data becomes visible: prove one complete selected generation, then publish the
/// manifest last.
///
/// The order is fixed: staged members, validated artifacts, proof of every member from the disk, completion,
/// veto, publication, read-back proof, swap of the active view. Until the selector is replaced any failure
/// leaves the previous cohort selected and the view unchanged; after it nothing rolls back. A whole
/// generation that the selector names is never cleared and is written to only by the repair of its own
/// identity, which stages aside and copies in what differs.
///
/// The caller holds the sync lock and the exclusive distribution lock for the whole call.
class CohortStager {
 public:
  struct Collaborators {
    const ParallelDownloader& downloads;
    const VocabularyFiles& vocabulary_files;
    const SignalsIndex& signals_index;
    const ShuffleSeed& shuffle_seed;
    HashCache& hash_cache;
    RotationPlanner& planner;
    const SearchConsumers& search_consumers;
    ActiveViewHolder& active;
  };

  CohortStager(std::string data_dir, std::int64_t market_id, Collaborators collaborators,
               std::shared_ptr<SyncProgress> progress, Seams seams);

  void _stage_and_activate_local_cohort(const StagingRequest& request);

  /// Stages an exact active-manifest cohort that contains the required paths.
  void _stage_active_manifest_with_required_paths(const std::vector<std::string>& required_paths,
                                                  SyncResult& result,
                                                  const std::vector<std::string>& force_download_paths = {});

 private:
  const std::string _data_dir;
  const std::int64_t _market_id;
  const Collaborators _with;
  const std::shared_ptr<SyncProgress> _progress;  // never null
  const Seams _seams;
};

}  // namespace tidalcrest::sync
