#!/usr/bin/env bash
# A client for `tools/demo.sh --check-with`: a first sync and one that finds nothing new, under valgrind. An invalid
# access, a use of what was never set, or a leak fails it.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

# Valgrind knows no AVX-512 and no SHA instructions: the hash library is told to leave them alone. Nor does it know
# openat2, and says so; the walk without it is taken.
export OPENSSL_ia32cap=:~0x20000000
for run in first second; do
  echo "$run sync"
  valgrind --quiet --error-exitcode=9 --leak-check=full --show-leak-kinds=definite,indirect \
    --errors-for-leak-kinds=definite,indirect --track-fds=no build/release/examples/sync_once "$@"
done
