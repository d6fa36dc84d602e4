#pragma once

/// The choice of which feature artifacts are held on disk: deterministic from seed, rows and the recorded
/// state, so that two processes with the same manifest and state agree. Nothing here reads a clock or a
/// random source, and everything is linear in the number of artifacts but for one sort.
#include "siblings/distribution/artifact_rotation_accounting.hpp"
#include "siblings/distribution/artifact_rotation_descriptors.hpp"
#include "siblings/distribution/artifact_rotation_plan.hpp"
#include "siblings/distribution/artifact_rotation_state.hpp"
#include "siblings/distribution/artifact_rotation_vocabulary.hpp"
