#!/usr/bin/env bash
# Runs the fuzzing program: tests/fuzz/run.sh [TARGET [SECONDS]], or keep [TARGET], or coverage [TARGET].
#   TARGET SECONDS  every target without one (60 s); ends early after RUNS executions. Findings: build/fuzz/findings
#   keep            adds to the saved corpus the fewest inputs that reach all the code that it does not
#   coverage        lines that the saved corpus reaches, of the files that each target is there for
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."

RUNS=10000000
program=build/fuzz/tests/fuzz/tidalcrest-fuzz
saved=tests/data/fuzz
found=build/fuzz/corpus

run() { # target argument...
  TIDALCREST_FUZZ_TARGET=$1 TMPDIR=${FUZZ_TMPDIR:-/dev/shm} \
    ASAN_OPTIONS=quarantine_size_mb=16:malloc_context_size=0 "$program" "${@:2}" 2>&1
}

# The words of a corpus, in the fuzzer's notation: it would guess them one letter at a time.
words() { # target
  cat "$saved/$1"/* | tr '\0' '\n' | grep -aoE '"[A-Za-z_][A-Za-z0-9_./-]{1,39}"' | sort -u || true
}

fuzz() { # target seconds
  local log=build/fuzz/$1.log dictionary=build/fuzz/$1.dict arguments=()
  mkdir -p "$found/$1" build/fuzz/findings
  words "$1" >"$dictionary"
  [ ! -s "$dictionary" ] || arguments=("-dict=$dictionary")
  printf '\n== %s, at most %s s or %s executions\n' "$1" "$2" "$RUNS"
  # New inputs go to the build directory; the saved corpus is read only.
  if ! run "$1" -runs="$RUNS" -max_total_time="$2" -max_len=4096 -timeout=300 -rss_limit_mb=2048 -print_final_stats=1 \
    -entropic=0 "${arguments[@]}" -artifact_prefix="build/fuzz/findings/$1-" "$found/$1" "$saved/$1" >"$log"; then
    tail -n 40 "$log"
    return 1
  fi
  grep -E '^(#[0-9]+.*DONE|stat::(number|average|peak))' "$log"
}

keep() { # target
  local log=build/fuzz/$1-keep.log
  mkdir -p "$found/$1"
  run "$1" -set_cover_merge=1 -use_counters=0 -max_len=4096 "$saved/$1" "$found/$1" >"$log" ||
    { tail -n 20 "$log"; return 1; }
  sed -n "s/^MERGE-OUTER: \(.* new files\).*/$1: \1/p" "$log"
}

sources_of() { # target
  case $1 in
    manifest) echo src/manifest/{identity,manifest,feature_paths,sanitising}.cpp src/rotation/{catalog,planner}.cpp \
      src/siblings/distribution/{manifest_document,manifest_entries,parsed_manifest,file_table}.cpp \
      src/siblings/distribution/{artifact_catalog,artifact_rotation_{accounting,descriptors,generator,plan,vocabulary}}.cpp ;;
    paths) echo src/manifest/paths.cpp src/siblings/distribution/manifest_document.cpp ;;
    signals_index) echo src/siblings/distribution/accepted_set.cpp ;;
    vocabulary) echo src/artifacts/{functions_file,retired_tokens,vocabulary}.cpp src/siblings/functions/vocabulary.cpp ;;
    rotation) echo src/siblings/distribution/{rotation_settings,artifact_rotation_state}.cpp ;;
    completion) echo src/siblings/distribution/{completion_record,generation_loading}.cpp ;;
    hash_cache) echo src/integrity/hash_cache_file.cpp ;;
    seed_sidecar) echo src/siblings/distribution/shuffle_seed_{cipher,state}.cpp ;;
    curl_output) echo src/transport/{curl_transport,http_types}.cpp ;;
    error_body) echo src/transport/{events,settings}.cpp ;;
    json) echo src/host/{json,plain_json}.cpp ;;
    version_answer) echo src/era/{era_current,library_floor}.cpp src/siblings/deployment/version.cpp src/host/integer.cpp ;;
  esac
}

coverage() { # target
  local profile=build/fuzz-coverage/$1
  printf '\n== %s, %s inputs\n' "$1" "$(find "$saved/$1" -type f | wc -l)"
  LLVM_PROFILE_FILE=$profile.raw run "$1" -runs=0 "$saved/$1" >"$profile.log" || { cat "$profile.log"; return 1; }
  llvm-profdata merge "$profile.raw" -o "$profile.data"
  # Picked here: llvm-cov knows a source only by the path that the compiler was given.
  llvm-cov report "$program" -instr-profile="$profile.data" | awk -v sources="$(sources_of "$1")" '
    BEGIN { split(sources, list); for (i in list) wanted[list[i]] }
    { path = $1; sub(/^.*src\//, "src/", path) }
    path in wanted { printf "%-62s %4d of %4d lines\n", path, $8 - $9, $8; reached += $8 - $9; lines += $8; found++ }
    END {
      printf "%-62s %4d of %4d lines (%d %%)\n", "all", reached, lines, lines ? 100 * reached / lines : 0
      exit found != length(wanted)
    }'
}

case ${1:-} in
  keep) for target in ${2:-$(ls "$saved")}; do keep "$target"; done ;;
  coverage)
    program=build/fuzz-coverage/tests/fuzz/tidalcrest-fuzz
    for target in ${2:-$(ls "$saved")}; do coverage "$target"; done
    ;;
  *) for target in ${1:-$(ls "$saved")}; do fuzz "$target" "${2:-60}"; done ;;
esac
