#!/usr/bin/env bash
# Runs the fuzzing program: tests/fuzz/run.sh [TARGET [SECONDS]]; what it finds lies in build/fuzz/findings.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."

targets=${1:-$(ls tests/data/fuzz)}
seconds=${2:-60}
mkdir -p build/fuzz/findings
for target in $targets; do
  printf '\n== %s, %s s\n' "$target" "$seconds"
  mkdir -p "build/fuzz/corpus/$target"
  dictionary=()
  [ -f "tests/fuzz/$target.dict" ] && dictionary=("-dict=tests/fuzz/$target.dict")
  # New inputs go to the build directory; the saved corpus is read only.
  TIDALCREST_FUZZ_TARGET=$target build/fuzz/tests/fuzz/tidalcrest-fuzz -max_total_time="$seconds" -max_len=16384 \
    -timeout=20 -rss_limit_mb=2048 -print_final_stats=1 -verbosity=1 "${dictionary[@]}" \
    -artifact_prefix="build/fuzz/findings/$target-" "build/fuzz/corpus/$target" "tests/data/fuzz/$target" 2>&1 |
    grep -E '^(#[0-9]+.*DONE|stat::|finding|SUMMARY|==|INFO: seed|.*ERROR)' || true
  [ "${PIPESTATUS[0]}" -eq 0 ]
done
