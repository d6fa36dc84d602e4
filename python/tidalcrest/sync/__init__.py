"""Keeps one local data directory in step with a remote distribution, and gives an exact, verified, immutable view
of it.

Obtain a manager with `SyncManager.get_or_create`, call `sync`, and read below `active_cohort_data_dir()`; or
`acquire` it and let it poll by itself.
"""

from . import _logging, _native  # logging first: at exit it is to end after this module
from ._errors import (DiskSpaceError, EraError, FeatureRotationStateError, IntegrityError, ManifestError,
                      ManifestSupersededError, PermanentDownloadError, StateError, SyncError, SyncUnavailableError)
from ._native import (DEFAULT_SHUFFLE_KEY_GENERATION, RETIRED_SHUFFLE_KEY_GENERATION_ERA_ONLY_V1,
                      SHUFFLE_KEY_GENERATION_HEADER, SHUFFLE_KEY_GENERATION_MARKET_ERA_V1, SHUFFLE_KEY_SOURCE_HEADER,
                      SYNC_FOUND_PAYLOAD_LATENCY_BOUND_SECONDS, EraThread, Manifest, SyncManager,
                      feature_rotation_state_path, feature_rotation_status_payload, load_feature_rotation_state,
                      write_feature_rotation_state)
from ._records import (CollectedRoot, CollectionReport, RotationState, SyncResult, VerifiedActiveCohortSnapshot,
                       VerifyResult)
from ._siblings import offer_built_in_modules

__version__ = _native.__version__

__all__ = [
    "CollectedRoot",
    "CollectionReport",
    "DEFAULT_SHUFFLE_KEY_GENERATION",
    "DiskSpaceError",
    "EraError",
    "EraThread",
    "FeatureRotationStateError",
    "IntegrityError",
    "Manifest",
    "ManifestError",
    "ManifestSupersededError",
    "PermanentDownloadError",
    "RETIRED_SHUFFLE_KEY_GENERATION_ERA_ONLY_V1",
    "RotationState",
    "SHUFFLE_KEY_GENERATION_HEADER",
    "SHUFFLE_KEY_GENERATION_MARKET_ERA_V1",
    "SHUFFLE_KEY_SOURCE_HEADER",
    "SYNC_FOUND_PAYLOAD_LATENCY_BOUND_SECONDS",
    "StateError",
    "SyncError",
    "SyncManager",
    "SyncResult",
    "SyncUnavailableError",
    "VerifiedActiveCohortSnapshot",
    "VerifyResult",
    "feature_rotation_state_path",
    "feature_rotation_status_payload",
    "load_feature_rotation_state",
    "write_feature_rotation_state",
]

for _type in (SyncManager, EraThread, Manifest):
    _type.__module__ = __name__
for _function in (feature_rotation_state_path, feature_rotation_status_payload, load_feature_rotation_state,
                  write_feature_rotation_state):
    _function.__module__ = __name__
del _type, _function

offer_built_in_modules()
