"""The result records."""

from dataclasses import dataclass, field
from typing import List, Optional, Tuple


@dataclass
class SyncResult:
    """Result of a sync operation."""

    features_downloaded: int = 0
    useful_signals_downloaded: int = 0
    bytes_downloaded: int = 0
    era_number: int = 0
    t_signal_is: int = 0
    t_strategy_is: int = 0
    n_instruments: int = 0
    n_features: int = 0
    n_useful_signals: int = 0
    n_found_strategies: int = 0
    pnl_column_count: int = 0
    vocabulary_downloaded: bool = False
    shuffle_seed_downloaded: bool = False
    active_relative_paths: List[str] = field(default_factory=list)
    skipped_relative_paths: List[str] = field(default_factory=list)
    mandatory_relative_paths: List[str] = field(default_factory=list)
    found_pnl_paths_downloaded: List[str] = field(default_factory=list)
    rotation_seed: Optional[int] = None
    feature_budget_bytes: Optional[int] = None


@dataclass
class VerifyResult:
    """Result of a verify operation."""

    valid: bool = True
    corrupted_files: List[str] = field(default_factory=list)
    missing_files: List[str] = field(default_factory=list)


@dataclass(frozen=True)
class VerifiedActiveCohortSnapshot:
    """One atomic view of the manifest-selected immutable local cohort."""

    base_dir: str
    root_dir: str
    manifest_bytes: bytes


@dataclass(frozen=True)
class RotationState:
    """The feature subset that a data directory holds, and what is needed to choose the next one."""

    active_relative_paths: Tuple[str, ...] = ()
    generation: int = 0
    seed: int = 0
    rng_state: str = ""
    algorithm: str = "uniform"
    reason: str = ""


@dataclass(frozen=True)
class CollectedRoot:
    """One root that a collection removed, or with `dry_run` would remove."""

    relative_path: str
    why: str
    bytes: int


@dataclass(frozen=True)
class CollectionReport:
    """What a collection of old generations did, or with `dry_run` would do."""

    removed: List[CollectedRoot]
    bytes_freed: int
    kept: List[str]


PUBLIC = (SyncResult, VerifyResult, VerifiedActiveCohortSnapshot, RotationState, CollectedRoot, CollectionReport)
for _type in PUBLIC:
    _type.__module__ = "tidalcrest.sync"
